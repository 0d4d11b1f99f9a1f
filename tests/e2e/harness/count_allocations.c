/* Preloaded into the daemon: counts, in the file that COUNT_ALLOCATIONS names, its allocations and the bytes that
 * are in use, for a test to look at. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

struct counters {
    uint64_t calls;
    int64_t live_bytes; /* as malloc_usable_size() counts them */
};

static struct counters before_mapping;
static struct counters* counters = &before_mapping;

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static void add_live(int64_t bytes)
{
    __atomic_fetch_add(&counters->live_bytes, bytes, __ATOMIC_RELAXED);
}

static void* counted(void* block)
{
    __atomic_fetch_add(&counters->calls, 1, __ATOMIC_RELAXED);
    add_live((int64_t)malloc_usable_size(block));
    return block;
}

void* malloc(size_t size)
{
    return counted(__libc_malloc(size));
}

void* calloc(size_t number, size_t size)
{
    return counted(__libc_calloc(number, size));
}

void* realloc(void* old, size_t size)
{
    const int64_t before = (int64_t)malloc_usable_size(old);
    void* block = __libc_realloc(old, size);
    if (block != NULL || size == 0) add_live(-before);
    return counted(block);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** result, size_t alignment, size_t size)
{
    *result = counted(__libc_memalign(alignment, size));
    return *result == NULL ? 12 : 0;
}

void free(void* block)
{
    add_live(-(int64_t)malloc_usable_size(block));
    __libc_free(block);
}

__attribute__((constructor)) static void map_counters(void)
{
    const char* path = getenv("COUNT_ALLOCATIONS");
    const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) _exit(71);
    void* map = mmap(NULL, sizeof(struct counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) _exit(72);
    struct counters* mapped = map;
    *mapped = before_mapping;
    counters = mapped;
}
