#pragma once

#include <cstdio>
#include <memory>
#include <string>

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Owns an open file of the C library.
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Opens a file for reading; it is not passed on to programs that are started. Null when it cannot
/// be opened.
inline File OpenToRead(const std::string& path) {
    return File(std::fopen(path.c_str(), "re"));
}
