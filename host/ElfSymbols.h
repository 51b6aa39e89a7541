// The functions a shared object exports, read from its ELF dynamic symbol
// table (.dynsym) without loading it. Header-only so that the tests that
// check the module's exports read the table exactly as implvm does.
//
// Every offset and size in the file is checked before use: a truncated or
// corrupt file gives an error, never a crash.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#if __has_include(<elf.h>)
#include <elf.h>
#define IMPLVM_HAVE_ELF_H 1
#endif

namespace implvm {

struct ElfExports {
    std::set<std::string> functions;  // defined, global or weak, visible
    std::string error;                // why nothing could be read ("" when read)
    bool ok() const { return error.empty(); }
};

namespace elf_detail {

// A bounds-checked copy of a structure at `offset` (the file need not keep
// them aligned for this host).
template <typename T>
bool ReadAt(const std::vector<unsigned char>& bytes, uint64_t offset, T& value) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return true;
}

#ifdef IMPLVM_HAVE_ELF_H
template <typename Ehdr, typename Shdr, typename Sym>
std::string CollectFunctions(const std::vector<unsigned char>& bytes, std::set<std::string>& out) {
    Ehdr header{};
    if (!ReadAt(bytes, 0, header)) return "truncated ELF header";
    if (header.e_shentsize != sizeof(Shdr)) return "unexpected section header size";

    auto section = [&](uint64_t index, Shdr& s) {
        return index < header.e_shnum && ReadAt(bytes, header.e_shoff + index * sizeof(Shdr), s);
    };
    for (uint64_t i = 0; i < header.e_shnum; ++i) {
        Shdr symbols{};
        if (!section(i, symbols)) return "truncated section header table";
        if (symbols.sh_type != SHT_DYNSYM) continue;

        Shdr names{};
        if (!section(symbols.sh_link, names)) return "bad string table link";
        if (names.sh_offset > bytes.size() || bytes.size() - names.sh_offset < names.sh_size)
            return "truncated string table";
        const char* strings = reinterpret_cast<const char*>(bytes.data() + names.sh_offset);
        if (symbols.sh_entsize != sizeof(Sym)) return "unexpected symbol size";

        for (uint64_t at = 0; at + sizeof(Sym) <= symbols.sh_size; at += sizeof(Sym)) {
            Sym sym{};
            if (!ReadAt(bytes, symbols.sh_offset + at, sym)) return "truncated symbol table";
            const unsigned type = ELF64_ST_TYPE(sym.st_info);
            const unsigned binding = ELF64_ST_BIND(sym.st_info);
            const unsigned visibility = ELF64_ST_VISIBILITY(sym.st_other);
            if (type != STT_FUNC && type != STT_GNU_IFUNC) continue;
            if (binding != STB_GLOBAL && binding != STB_WEAK) continue;
            if (visibility != STV_DEFAULT && visibility != STV_PROTECTED) continue;
            if (sym.st_shndx == SHN_UNDEF || sym.st_name >= names.sh_size) continue;
            const char* name = strings + sym.st_name;
            const void* end = std::memchr(name, '\0', names.sh_size - sym.st_name);
            if (end == nullptr) return "unterminated symbol name";
            out.emplace(name, static_cast<const char*>(end));
        }
        return "";
    }
    return "no dynamic symbol table";
}
#endif

}  // namespace elf_detail

inline ElfExports ReadElfExports(const std::string& path) {
    ElfExports result;
#ifdef IMPLVM_HAVE_ELF_H
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        result.error = "cannot open " + path;
        return result;
    }
    const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(file),
                                           std::istreambuf_iterator<char>()};
    unsigned char ident[EI_NIDENT] = {};
    if (!elf_detail::ReadAt(bytes, 0, ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
        result.error = path + " is not an ELF file";
        return result;
    }
    // Only files of this machine's byte order are read (a module for another
    // one could not be loaded here anyway).
    const uint16_t probe = 1;
    const unsigned char nativeData =
        *reinterpret_cast<const unsigned char*>(&probe) == 1 ? ELFDATA2LSB : ELFDATA2MSB;
    if (ident[EI_DATA] != nativeData) {
        result.error = path + ": ELF file of another byte order";
        return result;
    }
    if (ident[EI_CLASS] == ELFCLASS64)
        result.error = elf_detail::CollectFunctions<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(
            bytes, result.functions);
    else if (ident[EI_CLASS] == ELFCLASS32)
        result.error = elf_detail::CollectFunctions<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(
            bytes, result.functions);
    else
        result.error = "unknown ELF class";
    if (!result.error.empty()) {
        result.error = path + ": " + result.error;
        result.functions.clear();
    }
#else
    result.error = "reading " + path + ": ELF symbol tables are not supported on this platform";
#endif
    return result;
}

}  // namespace implvm
