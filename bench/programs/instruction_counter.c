/* A plugin of qemu (-plugin file=THIS,counter=FILE): counts the instructions that the emulated program executes, in a file of eight
 * bytes that others may look at meanwhile. Debian has no header for plugins: what is used of version 1 of the interface is declared
 * here. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

struct qemu_plugin_tb;

extern void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t id, void (*call)(uint64_t id, struct qemu_plugin_tb* block));
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
extern void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block,
                                                 void (*call)(unsigned processor, void* data), int flags, void* data);

int qemu_plugin_version = 1;
int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv);

static uint64_t* counter;

static void executed(unsigned processor, void* instructions)
{
    (void)processor;
    __atomic_fetch_add(counter, (uintptr_t)instructions, __ATOMIC_RELAXED);
}

static void translated(uint64_t id, struct qemu_plugin_tb* block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, executed, 0, (void*)(uintptr_t)qemu_plugin_tb_n_insns(block));
}

int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv)
{
    static const char option[] = "counter=";
    (void)info;
    if (argc != 1 || strncmp(argv[0], option, sizeof option - 1) != 0) return 1;
    const int fd = open(argv[0] + sizeof option - 1, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof *counter) != 0) return 1;
    void* const map = mmap(NULL, sizeof *counter, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) return 1;
    counter = map;
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    return 0;
}
