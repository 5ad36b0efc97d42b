// A plugin for qemu's user emulation that counts the guest's instructions and says how many at the end, for
// bench/cross.sh. Debian ships qemu without the header of its plugin interface, so what is needed of version
// 1 of it is declared here.
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t,
                                           void (*)(qemu_plugin_id_t, struct qemu_plugin_tb*));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb*, enum qemu_plugin_op, void*, uint64_t);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t, void (*)(qemu_plugin_id_t, void*), void*);

int qemu_plugin_version = 1;

// Not atomic: what is counted has one thread.
static uint64_t executed;

static void countBlock(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, QEMU_PLUGIN_INLINE_ADD_U64, &executed,
                                             qemu_plugin_tb_n_insns(block));
}

static void sayCount(qemu_plugin_id_t id, void* unused) {
    (void)id;
    (void)unused;
    fprintf(stderr, "instructions %" PRIu64 "\n", executed);
}

int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, countBlock);
    qemu_plugin_register_atexit_cb(id, sayCount, NULL);
    return 0;
}
