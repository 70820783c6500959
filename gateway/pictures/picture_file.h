// Single pictures: their names, what their bytes say they are, and the files that hold them. Used
// by the picture store and its resource.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qn {

// A new name that nobody can guess: 128 random bits in hexadecimal, and the extension of what the
// bytes are. Throws std::system_error when the system gives no random bits.
std::string newPictureName(std::string_view picture);
bool isPictureName(std::string_view name);
// The Content-Type for a picture name.
const char* pictureType(std::string_view name);

// What stands in the file's place until the picture is complete.
std::filesystem::path partOf(const std::filesystem::path& file);
bool isPartName(std::string_view name);

// Writes a new file so that it holds everything or is not there, whatever happens meanwhile: under
// partOf(file), flushed to the disk, renamed. Throws std::system_error; a `file` that is there then
// has everything.
void writePicture(const std::filesystem::path& file, std::string_view picture);
// Nothing when there is no such file or it cannot be read to its end.
std::optional<std::string> readPicture(const std::filesystem::path& file);

}  // namespace qn
