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

std::ostream& NwFilename::insertInto(std::ostream& stream) const {
    std::string shown;
    unsigned char before = 0;
    for (const char* c = c_str(); *c; ++c) {
        const unsigned char byte = static_cast<unsigned char>(*c);
        // The controls above 0x7F: a byte by itself, or behind 0xC2 in UTF-8.
        const bool isUpper = byte >= 0x80 && byte < 0xA0 && (before < 0x80 || before == 0xC2);
        before = byte;
        char escape[sizeof "\\xNN"];
        if (byte >= 0x20 && byte != 0x7F && !isUpper) {
            shown += *c;
        } else {
            std::snprintf(escape, sizeof escape, "\\x%02X", byte);
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
