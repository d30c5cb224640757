// Exceptions shared by the containers and the file readers. As everywhere in
// the system, an exception prints its own message when it is constructed, so
// the object itself carries no data and a catcher need not print anything.
#pragma once

#include <iostream>
#include <string>

// Root of every exception class of the system: catching it catches them all.
class ETarnwickError {};

// A file whose magic number is not one the reader knows.
class EInvalidFileFormat : public ETarnwickError {
public:
  explicit EInvalidFileFormat(const char* aFormat, const std::string& aFile = "") {
    std::cerr << "Exception EInvalidFileFormat: File is not in " << aFormat << " format";
    if (!aFile.empty()) std::cerr << ": " << aFile;
    std::cerr << std::endl;
  }
};

// Any other problem with a file the tool reads or writes: the message names
// the file and what is wrong with it.
class EFileError : public ETarnwickError {
public:
  explicit EFileError(const std::string& aMessage) { std::cerr << aMessage << std::endl; }
  EFileError(const std::string& aFile, const std::string& aProblem) {
    std::cerr << "Error: " << aFile << ": " << aProblem << std::endl;
  }
};
