#include "main/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

void openStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) == -1)
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free number: this one
}
