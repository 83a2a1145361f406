// SPDX-License-Identifier: BSD-3-Clause
// Reads linked files by their section headers, which strip leaves in place.
#include "elf_file.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>

#if defined(__x86_64__)
const unsigned int kRelocationToName = R_X86_64_64;
const unsigned int kRelocationToAddress = R_X86_64_RELATIVE;
const unsigned int kRelocationCopy = R_X86_64_COPY;
#elif defined(__aarch64__)
const unsigned int kRelocationToName = R_AARCH64_ABS64;
const unsigned int kRelocationToAddress = R_AARCH64_RELATIVE;
const unsigned int kRelocationCopy = R_AARCH64_COPY;
#else
#error "Which relocations put an address into a table of pointers on this machine?"
#endif

ElfFile::ElfFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open " + path);
    myBytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());

    const ElfHeader* header = at<ElfHeader>(0);
    if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_shentsize != sizeof(ElfSection))
        throw std::runtime_error(path + " is no linked file of this machine");
    const ElfSection* sections = at<ElfSection>(header->e_shoff, header->e_shnum);
    mySections.assign(sections, sections + header->e_shnum);

    readSymbols();
    myRelocations = entriesOf<ElfRelocation>(SHT_RELA);
}

template <class T>
const T* ElfFile::at(std::uintptr_t fileOffset, std::size_t count) const {
    if (fileOffset > myBytes.size() || count > (myBytes.size() - fileOffset) / sizeof(T))
        throw std::runtime_error("linked file is cut short");
    return reinterpret_cast<const T*>(myBytes.data() + fileOffset);
}

// The entries of all sections of one type. Only what the loader sees: sections that take room in memory.
template <class T>
std::vector<T> ElfFile::entriesOf(unsigned int sectionType) const {
    std::vector<T> entries;
    for (const ElfSection& section : mySections) {
        if (section.sh_type != sectionType || !(section.sh_flags & SHF_ALLOC)) continue;
        const std::size_t count = section.sh_size / sizeof(T);
        const T* first = at<T>(section.sh_offset, count);
        entries.insert(entries.end(), first, first + count);
    }
    return entries;
}

const char* ElfFile::linkedText(const ElfSection& section, std::size_t offset) const {
    const ElfSection& texts = mySections.at(section.sh_link);
    if (offset >= texts.sh_size) throw std::runtime_error("text beyond its table");
    return at<char>(texts.sh_offset + offset);
}

void ElfFile::readSymbols() {
    for (const ElfSection& section : mySections) {
        if (section.sh_type != SHT_DYNSYM) continue;
        const std::size_t count = section.sh_size / sizeof(ElfSymbolEntry);
        const ElfSymbolEntry* first = at<ElfSymbolEntry>(section.sh_offset, count);
        for (const ElfSymbolEntry* symbol = first; symbol != first + count; ++symbol)
            mySymbols.push_back({linkedText(section, symbol->st_name), symbol->st_value, symbol->st_size,
                                 ELF64_ST_TYPE(symbol->st_info), symbol->st_shndx != SHN_UNDEF,
                                 symbol->st_shndx == SHN_ABS});
    }
}

std::vector<std::string> ElfFile::dynamicTexts(ElfW(Sxword) tag) const {
    std::vector<std::string> texts;
    for (const ElfSection& section : mySections) {
        if (section.sh_type != SHT_DYNAMIC) continue;
        const std::size_t count = section.sh_size / sizeof(ElfDynamic);
        const ElfDynamic* first = at<ElfDynamic>(section.sh_offset, count);
        for (const ElfDynamic* entry = first; entry != first + count; ++entry)
            if (entry->d_tag == tag) texts.push_back(linkedText(section, entry->d_un.d_val));
    }
    return texts;
}

std::string ElfFile::soname() const {
    const std::vector<std::string> texts = dynamicTexts(DT_SONAME);
    return texts.empty() ? std::string() : texts.front();
}

std::vector<std::string> ElfFile::needed() const {
    return dynamicTexts(DT_NEEDED);
}

std::vector<std::string> ElfFile::runPaths() const {
    std::vector<std::string> paths = dynamicTexts(DT_RUNPATH);
    for (const std::string& path : dynamicTexts(DT_RPATH)) paths.push_back(path);
    return paths;
}

bool ElfFile::isSymbolic() const {
    for (const ElfDynamic& entry : entriesOf<ElfDynamic>(SHT_DYNAMIC))
        if (entry.d_tag == DT_SYMBOLIC || (entry.d_tag == DT_FLAGS && (entry.d_un.d_val & DF_SYMBOLIC)))
            return true;
    return false;
}

const ElfSymbol* ElfFile::find(const std::string& name) const {
    for (const ElfSymbol& symbol : mySymbols)
        if (symbol.defined && symbol.name == name) return &symbol;
    return nullptr;
}

// The word that the file itself holds for an address in memory: 0 where it holds none.
std::uintptr_t ElfFile::wordAt(std::uintptr_t address) const {
    for (const ElfSection& section : mySections) {
        if (!(section.sh_flags & SHF_ALLOC) || section.sh_type == SHT_NOBITS) continue;
        if (address < section.sh_addr || address - section.sh_addr >= section.sh_size) continue;
        std::uintptr_t word;
        std::memcpy(&word, at<char>(section.sh_offset + (address - section.sh_addr), sizeof word),
                    sizeof word);
        return word;
    }
    return 0;
}

std::vector<std::string> ElfFile::namesAt(std::uintptr_t address) const {
    std::vector<std::string> names;
    for (const ElfSymbol& symbol : mySymbols)
        if (symbol.defined && !symbol.absolute && symbol.address == address) names.push_back(symbol.name);
    return names;
}

std::vector<std::vector<std::string>> ElfFile::pointersOf(const ElfSymbol& object) const {
    std::vector<std::vector<std::string>> pointers;
    for (std::uintptr_t place = object.address; place < object.address + object.size;
         place += sizeof(void*)) {
        const auto relocation = std::find_if(myRelocations.begin(), myRelocations.end(),
                                             [&](const ElfRelocation& r) { return r.r_offset == place; });
        if (relocation == myRelocations.end()) {
            const std::uintptr_t address = wordAt(place);
            pointers.push_back(address ? namesAt(address) : std::vector<std::string>());
        } else if (ELF64_R_TYPE(relocation->r_info) == kRelocationToName) {
            pointers.push_back({mySymbols.at(ELF64_R_SYM(relocation->r_info)).name});
        } else if (ELF64_R_TYPE(relocation->r_info) == kRelocationToAddress) {
            pointers.push_back(namesAt(static_cast<std::uintptr_t>(relocation->r_addend)));
        } else {
            throw std::runtime_error("relocation of an unknown kind in " + object.name);
        }
    }
    return pointers;
}

std::vector<std::string> ElfFile::copiedVariables() const {
    std::vector<std::string> names;
    for (const ElfRelocation& relocation : myRelocations)
        if (ELF64_R_TYPE(relocation.r_info) == kRelocationCopy)
            names.push_back(mySymbols.at(ELF64_R_SYM(relocation.r_info)).name);
    return names;
}

std::string demangled(const std::string& name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                std::free);
    // A plain C name may happen to be the mangled form of a type ("i" is int): only _Z marks a mangled one.
    return status == 0 && name.compare(0, 2, "_Z") == 0 ? text.get() : name;
}

std::vector<std::string> exportedNames(const ElfFile& library) {
    std::set<std::string> lines;  // a constructor's and destructor's variants are one line
    for (const ElfSymbol& symbol : library.symbols()) {
        if (!symbol.defined) continue;
        const std::string name = demangled(symbol.name);
        const bool isCompilersTable = symbol.name.compare(0, 3, "_ZT") == 0;
        if (symbol.absolute)
            lines.insert("version " + name);
        else if (symbol.type == STT_FUNC || isCompilersTable)
            lines.insert(name);
        else
            lines.insert(name + "  (size " + std::to_string(symbol.size) + ")");
    }
    return std::vector<std::string>(lines.begin(), lines.end());
}
