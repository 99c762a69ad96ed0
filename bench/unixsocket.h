/* Unix-domain stream sockets for the C references. */
#ifndef UNIXSOCKET_H
#define UNIXSOCKET_H

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static inline int unix_address(struct sockaddr_un* address, const char* path)
{
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address->sun_path))
        return -1;
    strcpy(address->sun_path, path);
    return 0;
}

/* A listening socket at path; a file already there is replaced. */
static inline int unix_listen(const char* path)
{
    struct sockaddr_un address;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || unix_address(&address, path) < 0)
        return -1;
    unlink(path);
    if (bind(fd, (struct sockaddr*)&address, sizeof(address)) < 0 || listen(fd, 8) < 0) {
        perror(path);
        close(fd);
        return -1;
    }
    return fd;
}

static inline int unix_connect(const char* path)
{
    struct sockaddr_un address;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || unix_address(&address, path) < 0)
        return -1;
    if (connect(fd, (struct sockaddr*)&address, sizeof(address)) < 0) {
        perror(path);
        close(fd);
        return -1;
    }
    return fd;
}

#endif
