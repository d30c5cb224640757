#include "Driver.h"

namespace NDriver {

int main(int, char**) { return 0; }

}  // namespace NDriver
