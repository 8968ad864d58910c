// Every exported descriptor table lies in read-only memory after
// relocation: in libtarn's file each `*_tbl` symbol is defined in .rodata or
// .data.rel.ro (read from the ELF section headers, for either ELF class),
// and once the library is loaded, the page that holds each table is mapped
// without write permission.  A stray write to a table then faults instead of
// changing the records of every process.
//
// This program does not link libtarn: it opens the file and dlopens it, so
// the addresses it checks are the library's own.

#include <dlfcn.h>
#include <elf.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tlv_table.h>

#include "table_list.h"

using tabletest::kTableCount;
using tabletest::kTables;

namespace {

std::vector<char> read_file(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <class T>
bool read_at(const std::vector<char> &file, uint64_t off, T *out)
{
    if (off > file.size() || file.size() - off < sizeof *out)
        return false;
    memcpy(out, file.data() + off, sizeof *out);
    return true;
}

std::string text_at(const std::vector<char> &file, uint64_t off)
{
    std::string s;
    while (off < file.size() && file[off] != '\0')
        s += file[off++];
    return s;
}

// Defined symbol name -> name of the section that holds it, from .dynsym.
template <class Ehdr, class Shdr, class Sym>
std::map<std::string, std::string> symbol_sections(const std::vector<char> &file)
{
    std::map<std::string, std::string> out;
    Ehdr eh;
    if (!read_at(file, 0, &eh))
        return out;
    std::vector<Shdr> sections(eh.e_shnum);
    for (size_t i = 0; i < sections.size(); ++i)
        if (!read_at(file, eh.e_shoff + i * sizeof(Shdr), &sections[i]))
            return out;
    if (eh.e_shstrndx >= sections.size())
        return out;
    const Shdr &names = sections[eh.e_shstrndx];
    for (const Shdr &s : sections) {
        if (s.sh_type != SHT_DYNSYM || s.sh_link >= sections.size())
            continue;
        const Shdr &strings = sections[s.sh_link];
        for (uint64_t off = 0; off + sizeof(Sym) <= s.sh_size; off += sizeof(Sym)) {
            Sym sym;
            if (!read_at(file, s.sh_offset + off, &sym))
                break;
            if (sym.st_shndx == SHN_UNDEF || sym.st_shndx >= sections.size())
                continue;
            out[text_at(file, strings.sh_offset + sym.st_name)] =
                text_at(file, names.sh_offset + sections[sym.st_shndx].sh_name);
        }
    }
    return out;
}

bool ends_with(const std::string &s, const std::string &tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

TEST(TablesReadOnly, EveryTableSymbolIsInAReadOnlySection)
{
    const std::vector<char> file = read_file(TARN_LIBRARY_PATH);
    ASSERT_GT(file.size(), static_cast<size_t>(EI_NIDENT));
    ASSERT_EQ(0, memcmp(file.data(), ELFMAG, SELFMAG));
    const auto sections = file[EI_CLASS] == ELFCLASS64
                              ? symbol_sections<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(file)
                              : symbol_sections<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(file);
    ASSERT_FALSE(sections.empty());
    unsigned tables = 0;
    for (const auto &s : sections) {
        // The sanitizers add markers of their own (__odr_asan.<name>).
        if (!ends_with(s.first, "_tbl") || s.first.compare(0, 2, "__") == 0)
            continue;
        ++tables;
        EXPECT_TRUE(s.second == ".rodata" || s.second == ".data.rel.ro")
            << s.first << " is in " << s.second;
    }
    EXPECT_EQ(kTableCount, tables);
    for (unsigned i = 0; i < kTableCount; ++i)
        EXPECT_EQ(1u, sections.count(kTables[i].table)) << kTables[i].table;
}

// The permissions of the mapping that holds `p`, as /proc/self/maps gives
// them ("r--p"), or "" when no mapping does.
std::string permissions_of(const void *p)
{
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    FILE *maps = fopen("/proc/self/maps", "r");
    if (maps == nullptr)
        return "";
    char line[512];
    std::string perms;
    while (fgets(line, sizeof line, maps) != nullptr) {
        unsigned long lo = 0, hi = 0;
        char mode[8] = {0};
        if (sscanf(line, "%lx-%lx %7s", &lo, &hi, mode) == 3 && a >= lo && a < hi) {
            perms = mode;
            break;
        }
    }
    fclose(maps);
    return perms;
}

TEST(TablesReadOnly, EveryTableIsMappedWithoutWritePermission)
{
    void *lib = dlopen(TARN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib) << dlerror();
    for (unsigned i = 0; i < kTableCount; ++i) {
        SCOPED_TRACE(kTables[i].table);
        const auto *tbl = static_cast<const unsigned char *>(dlsym(lib, kTables[i].table));
        ASSERT_NE(nullptr, tbl);
        Dl_info info;
        ASSERT_NE(0, dladdr(tbl, &info));
        ASSERT_NE(nullptr, info.dli_sname);
        EXPECT_STREQ(kTables[i].table, info.dli_sname);
        // The first and the last byte: a table may straddle two pages.
        const size_t bytes =
            sizeof(tlvkit_table_head_t) + kTables[i].descriptors * sizeof(tlvkit_field_t);
        for (const unsigned char *p : {tbl, tbl + bytes - 1}) {
            const std::string perms = permissions_of(p);
            ASSERT_EQ(4u, perms.size());
            EXPECT_EQ('r', perms[0]);
            EXPECT_EQ('-', perms[1]) << perms;
        }
    }
    dlclose(lib);
}

}  // namespace
