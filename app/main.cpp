#include "Driver.h"

int main(int argc, char** args) { return NDriver::main(argc, args); }
