#include "common/std_descriptors.h"

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

void openStdDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) != -1) continue;
        (void)::open("/dev/null",
                     O_RDWR); // the lowest number that is free: this one; kept over exec(2) like the others
    }
}
