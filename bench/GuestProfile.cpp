// SPDX-License-Identifier: Apache-2.0
// A plugin of QEMU that counts what a guest executes between two marks, block by block, exactly. At
// each end a file is written with a line a block: address, instructions in it, times executed.
//
// Declares what it uses of the plugin interface (version 1): Debian does not package the header.
#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "GuestMarks.h"

extern "C" {
struct qemu_plugin_tb;
struct qemu_plugin_insn;
using PluginId = uint64_t;

void qemu_plugin_register_vcpu_tb_trans_cb(PluginId, void (*)(PluginId, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_inline(qemu_plugin_tb*, int operation, void* counter,
                                              uint64_t addend);
void qemu_plugin_register_vcpu_insn_exec_cb(qemu_plugin_insn*, void (*)(unsigned, void*), int flags,
                                            void* argument);
size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb*);
uint64_t qemu_plugin_tb_vaddr(const qemu_plugin_tb*);
qemu_plugin_insn* qemu_plugin_tb_get_insn(const qemu_plugin_tb*, size_t);
const void* qemu_plugin_insn_data(const qemu_plugin_insn*);
size_t qemu_plugin_insn_size(const qemu_plugin_insn*);

[[gnu::visibility("default")]] int qemu_plugin_version = 1;
}

namespace {

constexpr int kAdd = 0;      ///< the one inline operation
constexpr int kNoFlags = 0;  ///< the callback looks at no register

struct Count {
    uint64_t now = 0;
    uint64_t atBegin = 0;
};

// One processor, so that nothing here runs beside itself.
std::map<std::pair<uint64_t, size_t>, Count> sCounts;  ///< by address and instructions
std::string sFile;
int sParts = 0;

void begin(unsigned, void*) {
    for (auto& [block, count] : sCounts)
        count.atBegin = count.now;
}

void end(unsigned, void*) {
    FILE* const file = fopen((sFile + "." + std::to_string(sParts++)).c_str(), "w");
    if (file == nullptr)
        return;
    for (const auto& [block, count] : sCounts)
        if (count.now != count.atBegin)
            fprintf(file, "%" PRIx64 " %zu %" PRIu64 "\n", block.first, block.second,
                    count.now - count.atBegin);
    fclose(file);
}

bool is(const qemu_plugin_insn* instruction, const std::array<uint8_t, 8>& mark) {
    return qemu_plugin_insn_size(instruction) == mark.size() &&
           memcmp(qemu_plugin_insn_data(instruction), mark.data(), mark.size()) == 0;
}

void translated(PluginId, qemu_plugin_tb* block) {
    const size_t size = qemu_plugin_tb_n_insns(block);
    Count& count = sCounts[{qemu_plugin_tb_vaddr(block), size}];
    qemu_plugin_register_vcpu_tb_exec_inline(block, kAdd, &count.now, 1);
    for (size_t i = 0; i < size; ++i) {
        qemu_plugin_insn* const instruction = qemu_plugin_tb_get_insn(block, i);
        if (is(instruction, kGuestBegin))
            qemu_plugin_register_vcpu_insn_exec_cb(instruction, begin, kNoFlags, nullptr);
        else if (is(instruction, kGuestEnd))
            qemu_plugin_register_vcpu_insn_exec_cb(instruction, end, kNoFlags, nullptr);
    }
}

}  // namespace

/** Takes one argument, out=PATH: the parts are PATH.0, PATH.1 and so on. */
extern "C" [[gnu::visibility("default")]] int qemu_plugin_install(PluginId id, const void*,
                                                                  int count, char** arguments) {
    const std::string argument = count == 1 ? arguments[0] : "";
    if (argument.rfind("out=", 0) != 0)
        return -1;
    sFile = argument.substr(4);
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    return 0;
}
