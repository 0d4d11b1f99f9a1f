/* Preloaded into the daemon: counts allocations in the file that COUNT_ALLOCATIONS names, which a test looks at. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

static uint64_t before_mapping;
static uint64_t* counter = &before_mapping;

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

static void count(void)
{
    __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}

void* malloc(size_t size)
{
    count();
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    count();
    return __libc_calloc(number, size);
}

void* realloc(void* old, size_t size)
{
    count();
    return __libc_realloc(old, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** result, size_t alignment, size_t size)
{
    count();
    *result = __libc_memalign(alignment, size);
    return *result == NULL ? 12 : 0;
}

__attribute__((constructor)) static void map_counter(void)
{
    const char* path = getenv("COUNT_ALLOCATIONS");
    const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) _exit(71);
    void* map = mmap(NULL, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) _exit(72);
    uint64_t* mapped = map;
    *mapped = before_mapping;
    counter = mapped;
}
