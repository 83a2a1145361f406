// SPDX-License-Identifier: BSD-3-Clause
// What the binary-interface tests read from a linked file: its dynamic section, its dynamic symbols, and what
// the loader will put into a table of pointers.
#ifndef CVNC_TESTS_ABI_ELF_FILE_H
#define CVNC_TESTS_ABI_ELF_FILE_H

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The records of a linked file with the word size of this machine.
typedef ElfW(Ehdr) ElfHeader;
typedef ElfW(Shdr) ElfSection;
typedef ElfW(Dyn) ElfDynamic;
typedef ElfW(Sym) ElfSymbolEntry;
typedef ElfW(Rela) ElfRelocation;

struct ElfSymbol {
    std::string name;  // as the linker knows it, without its version
    std::uintptr_t address;
    std::size_t size;
    int type;       // STT_FUNC, STT_OBJECT, ...
    bool defined;   // by this file, not wanted from another
    bool absolute;  // no place in memory: the name of a symbol version
};

// One file, of the word size and byte order of this machine. Everything that is wrong with the file itself is
// a std::runtime_error.
class ElfFile {
public:
    explicit ElfFile(const std::string& path);

    std::string soname() const;                 // empty when there is none
    std::vector<std::string> needed() const;    // in the order in which the loader looks them up
    std::vector<std::string> runPaths() const;  // DT_RPATH and DT_RUNPATH
    // Whether the file was linked to look up its own names in itself first (-Bsymbolic).
    bool isSymbolic() const;

    const std::vector<ElfSymbol>& symbols() const { return mySymbols; }
    // The definition of a mangled name, or null.
    const ElfSymbol* find(const std::string& name) const;

    // For each pointer of an object of this file, the mangled names that it may stand for: the one in its
    // relocation, or else all that lie at the address it will hold (compilers fold operations with equal
    // code). Empty for a null pointer.
    std::vector<std::vector<std::string>> pointersOf(const ElfSymbol& object) const;

    // The variables of shared libraries that the loader copies into this program.
    std::vector<std::string> copiedVariables() const;

    const std::string& bytes() const { return myBytes; }

private:
    template <class T>
    const T* at(std::uintptr_t fileOffset, std::size_t count = 1) const;
    template <class T>
    std::vector<T> entriesOf(unsigned int sectionType) const;
    const char* linkedText(const ElfSection& section, std::size_t offset) const;
    std::vector<std::string> dynamicTexts(ElfW(Sxword) tag) const;
    void readSymbols();
    std::uintptr_t wordAt(std::uintptr_t address) const;
    std::vector<std::string> namesAt(std::uintptr_t address) const;

    std::string myBytes;
    std::vector<ElfSection> mySections;
    std::vector<ElfSymbol> mySymbols;  // in the file's order: relocations index it
    std::vector<ElfRelocation> myRelocations;
};

// The name a programmer wrote; a name that is not mangled comes back as it is.
std::string demangled(const std::string& name);

// The interface of a shared library, one line a name, sorted: functions as declared, variables with their
// size, tables and type information of classes, symbol versions.
std::vector<std::string> exportedNames(const ElfFile& library);

#endif
