// SPDX-License-Identifier: BSD-3-Clause
// File names as values.
#include <cvutil/cvFilename.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ostream>

NwFilename::NwFilename() = default;

NwFilename::NwFilename(const char* name) : myName(name ? name : "") {}

NwFilename::NwFilename(const std::string& name) : myName(name.c_str()) {}  // up to a NUL, like the system

long long NwFilename::fileSize() const {
    struct stat status;
    if (::stat(c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
    return status.st_size;
}

NwFilename NwFilename::stripPath() const {
    return myName.substr(myName.rfind('/') + 1);  // without a '/': npos + 1, the start
}

NwFilename NwFilename::combine(const NwFilename& dir, const NwFilename& name) {
    if (dir.myName.empty() || dir.myName.back() == '/') return dir.myName + name.myName;
    return dir.myName + '/' + name.myName;
}

namespace {

unsigned int byteAt(const char* text) {
    return static_cast<unsigned char>(*text);
}

// The number of the letter that begins here, and its size: of one in UTF-8, or of a byte by itself.
unsigned int letterAt(const char* text, std::size_t& size) {
    const unsigned int first = byteAt(text);
    size = 1;
    if (first < 0xC0 || first > 0xF7) return first;
    const std::size_t count = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    unsigned int letter = first & (0x7Fu >> count);
    for (std::size_t i = 1; i < count; ++i) {
        const unsigned int next = byteAt(text + i);
        if ((next & 0xC0) != 0x80) return first;
        letter = letter << 6 | (next & 0x3F);
    }
    size = count;
    return letter;
}

}  // namespace

std::ostream& NwFilename::insertInto(std::ostream& stream) const {
    std::string shown;
    for (std::size_t at = 0, size = 0; at < myName.size(); at += size) {
        const char* text = c_str() + at;
        const unsigned int letter = letterAt(text, size);
        const bool isControl = letter < 0x20 || (letter >= 0x7F && letter < 0xA0);
        if (!isControl) shown.append(text, size);
        for (std::size_t i = 0; isControl && i < size; ++i) {
            char escape[sizeof "\\xNN"];
            std::snprintf(escape, sizeof escape, "\\x%02X", byteAt(text + i));
            shown += escape;
        }
    }
    return stream << shown;
}

bool NwMakeDirectory(const NwFilename& directory) {
    const std::string path = directory.c_str();
    int error = 0;
    for (std::string::size_type end = path.find_first_not_of('/'); end < path.size();) {
        end = path.find('/', end);
        if (end == std::string::npos) end = path.size();
        // What exists already, or cannot be made and is not needed, shows when the last one is looked at.
        error = ::mkdir(path.substr(0, end).c_str(), 0777) == 0 ? 0 : errno;
        end = path.find_first_not_of('/', end);
    }
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) {
        if (error && error != EEXIST) errno = error;
        return false;
    }
    if (S_ISDIR(status.st_mode)) return true;
    errno = ENOTDIR;
    return false;
}
