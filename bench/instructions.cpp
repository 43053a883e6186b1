// A plugin of the emulator (qemu-arm -plugin): counts the instructions that a program executes, in
// all its threads. The program closes descriptor -4711 to have the count so far printed as a line
// on the emulator's standard error. Of the plugin interface only what is used is declared here.
#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

extern "C" {

struct qemu_plugin_tb;
struct qemu_info_t;

void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t, void (*)(uint64_t, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(qemu_plugin_tb*, void (*)(unsigned, void*), int flags,
                                          void* data);
void qemu_plugin_register_vcpu_syscall_cb(uint64_t, void (*)(uint64_t, unsigned, int64_t, uint64_t,
                                                             uint64_t, uint64_t, uint64_t, uint64_t,
                                                             uint64_t, uint64_t, uint64_t));
size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb*);

#define EXPORT __attribute__((visibility("default")))
EXPORT extern int qemu_plugin_version;
int qemu_plugin_version = 1;
EXPORT int qemu_plugin_install(uint64_t, const qemu_info_t*, int, char**);
}

namespace {

constexpr int64_t kClose = 6;
constexpr int32_t kMark = -4711;

std::atomic<uint64_t> g_nInstructions{0};

// A block of instructions is about to run; data is their number.
void OnRun(unsigned, void* data) { g_nInstructions += reinterpret_cast<uintptr_t>(data); }

void OnTranslate(uint64_t, qemu_plugin_tb* block) {
    qemu_plugin_register_vcpu_tb_exec_cb(block, OnRun, 0,
                                         reinterpret_cast<void*>(qemu_plugin_tb_n_insns(block)));
}

void OnSyscall(uint64_t, unsigned, int64_t nCall, uint64_t nFirst, uint64_t, uint64_t, uint64_t,
               uint64_t, uint64_t, uint64_t, uint64_t) {
    if (nCall != kClose || static_cast<int32_t>(nFirst) != kMark) return;
    std::fprintf(stderr, "instructions %" PRIu64 "\n", g_nInstructions.load());
}

}  // namespace

int qemu_plugin_install(uint64_t nId, const qemu_info_t*, int, char**) {
    qemu_plugin_register_vcpu_tb_trans_cb(nId, OnTranslate);
    qemu_plugin_register_vcpu_syscall_cb(nId, OnSyscall);
    return 0;
}
