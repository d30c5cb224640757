// Whole-file writes that never leave a partial file under the target name.
#pragma once

#include <string>
#include <vector>

namespace NAtomicFile {

// Writes aBytes to a temporary file beside aFilename and renames it into
// place, with the permissions a plain creation would give. Throws EFileError
// naming aFilename when the file cannot be created or written.
void write(const std::string& aFilename, const std::vector<unsigned char>& aBytes);

}  // namespace NAtomicFile
