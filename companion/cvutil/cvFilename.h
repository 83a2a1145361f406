// SPDX-License-Identifier: BSD-3-Clause
// File names as values: taking them apart, putting them together, asking for a size.
//
//     NwFilename file("/data/terrain/tile_7.dat");
//     NwFilename target = NwFilename::combine("/var/inbox", file.stripPath());   // /var/inbox/tile_7.dat
//     NwInfo << target << ": " << file.fileSize() << " bytes" << std::endl;
#ifndef CVUTIL_CVFILENAME_H
#define CVUTIL_CVFILENAME_H

#include <iosfwd>
#include <string>

#include <cvutil/cvExport.h>

// The name of a file or directory, with or without directories in front, as the system takes it. Names are
// bytes: nothing is normalised, no encoding assumed. Different objects may be used by different threads.
class NWUTIL_API NwFilename {
public:
    // The empty name.
    NwFilename();
    // A copy of `name`; null counts as empty. (Not explicit: a text may stand wherever a name is wanted.)
    NwFilename(const char* name);
    NwFilename(const std::string& name);

    // The name as given, NUL-terminated: lent until this object changes or goes. And its length in bytes.
    const char* c_str() const { return myName.c_str(); }
    unsigned int length() const { return static_cast<unsigned int>(myName.length()); }

    // The size in bytes of the file of this name, links followed. -1 if there is none or it is no regular
    // file.
    long long fileSize() const;

    // What stands behind the last '/': all of it without one, nothing if it ends with one.
    NwFilename stripPath() const;

    // `name` in the directory `dir`, with a '/' between unless `dir` ends with one; `name` alone if `dir` is
    // empty.
    static NwFilename combine(const NwFilename& dir, const NwFilename& name);

    // Inserts the name, as << does. Control characters come out as \xNN: a name from elsewhere cannot steer a
    // terminal.
    std::ostream& insertInto(std::ostream& stream) const;

    friend bool operator==(const NwFilename& a, const NwFilename& b) { return a.myName == b.myName; }
    friend bool operator!=(const NwFilename& a, const NwFilename& b) { return !(a == b); }

private:
    std::string myName;
};

inline std::ostream& operator<<(std::ostream& stream, const NwFilename& name) {
    return name.insertInto(stream);
}

// Makes a directory, and those above it that are missing, as far as the process's umask lets it. Returns true
// if there is a directory of this name afterwards, made now or before; else false, with errno.
NWUTIL_API bool NwMakeDirectory(const NwFilename& directory);

#endif
