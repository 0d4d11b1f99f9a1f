#include "common/std_descriptors.h"

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

void openStdDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) != -1) continue;
        // Gets the lowest number that is free, which is this one. Kept over exec(2), as the others
        // are.
        (void)::open("/dev/null", O_RDWR);
    }
}
