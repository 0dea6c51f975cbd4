#pragma once

#include <cstddef>
#include <string>

namespace orv::services {

// Reads a whole file that is small by nature (a sysfs attribute, a
// parameter file, an allow-list) into text. Returns 0, or a negative errno:
// -EFBIG when the file holds more than maxBytes, which no genuine one does.
// Opened non-blocking, so that a pipe put in a file's place cannot hang the
// reader.
int readSmallFile(const std::string& path, std::size_t maxBytes, std::string& text);

}  // namespace orv::services
