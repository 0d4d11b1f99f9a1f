/* The least that a router of commands can do: it waits with select(2), sends what a client has written to the one process as a
 * datagram, and a second thread writes each answer to the client that has asked. Nothing is looked at, looked up or logged.
 *
 * It listens on /tmp/socket (lines) and /tmp/xcp (frames), its queue is /run/tess/queue/1001, the process's 2001. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { HEADER = 16, RECORD = 8192, KIND_TEXT = 101, MOST_FDS = 256 };

struct record {
    uint32_t kind, sender, tag, length;
    char text[RECORD - HEADER];
};

struct client {
    int framed;
    size_t have; /* bytes of a command that has begun */
    char bytes[RECORD];
};

static struct client* clients[MOST_FDS];
static struct sockaddr_un process;
static int queue;

static void need(int result, const char* what)
{
    if (result >= 0) return;
    perror(what);
    exit(1);
}

static void set_path(struct sockaddr_un* address, const char* path)
{
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    strncpy(address->sun_path, path, sizeof address->sun_path - 1);
}

static int bound(int type, const char* path)
{
    struct sockaddr_un address;
    set_path(&address, path);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    need(fd, "socket");
    need(bind(fd, (const struct sockaddr*)&address, sizeof address), path);
    return fd;
}

static void send_command(int fd, const char* text, size_t length, uint32_t tag)
{
    struct record record;
    if (length > sizeof record.text - 1) length = sizeof record.text - 1;
    record.kind = KIND_TEXT;
    record.sender = 0;
    record.tag = (uint32_t)fd << 16 | (tag & 0xFFFFU);
    record.length = 0;
    memcpy(record.text, text, length);
    record.text[length] = '\0';
    sendto(queue, &record, HEADER + length + 1, MSG_NOSIGNAL, (const struct sockaddr*)&process, sizeof process);
}

/* Returns the bytes of the command at the front, 0 when it is not whole. */
static size_t send_first(int fd, const struct client* client, const char* from, size_t left)
{
    if (client->framed) {
        uint32_t words[4];
        if (left < HEADER) return 0;
        memcpy(words, from, sizeof words);
        if (left < HEADER + words[3]) return 0;
        send_command(fd, from + HEADER, words[3], words[2]);
        return HEADER + words[3];
    }
    const char* const end = memchr(from, '\n', left);
    if (end == NULL) return 0;
    send_command(fd, from, (size_t)(end - from) + 1, 0);
    return (size_t)(end - from) + 1;
}

static void read_client(int fd, fd_set* all)
{
    struct client* const client = clients[fd];
    const ssize_t got = recv(fd, client->bytes + client->have, sizeof client->bytes - client->have, 0);
    if (got <= 0) {
        FD_CLR(fd, all);
        clients[fd] = NULL;
        free(client);
        close(fd);
        return;
    }
    const size_t end = client->have + (size_t)got;
    size_t done = 0;
    for (size_t used = 1; used > 0; done += used)
        used = send_first(fd, client, client->bytes + done, end - done);
    client->have = end - done;
    if (client->have > 0) memmove(client->bytes, client->bytes + done, client->have);
}

static void accept_client(int listener, int framed, fd_set* all, int* highest)
{
    const int fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
    if (fd < 0) return;
    if (fd >= MOST_FDS) {
        close(fd);
        return;
    }
    clients[fd] = calloc(1, sizeof(struct client));
    if (clients[fd] == NULL) exit(1);
    clients[fd]->framed = framed;
    FD_SET(fd, all);
    if (fd > *highest) *highest = fd;
}

static void* write_answers(void* unused)
{
    static struct record record;
    for (;;) {
        const ssize_t got = recv(queue, &record, sizeof record, 0);
        if (got < HEADER) continue;
        const uint32_t fd = record.tag >> 16;
        const size_t text = strnlen(record.text, (size_t)got - HEADER);
        if (fd >= MOST_FDS || clients[fd] == NULL) continue;
        if (clients[fd]->framed) {
            record.tag &= 0xFFFFU;
            record.length = (uint32_t)text + 1;
            send((int)fd, &record, HEADER + text + 1, MSG_NOSIGNAL);
        } else {
            send((int)fd, record.text, text, MSG_NOSIGNAL);
        }
    }
    return unused;
}

int main(void)
{
    const int lines = bound(SOCK_STREAM, "/tmp/socket");
    const int frames = bound(SOCK_STREAM, "/tmp/xcp");
    queue = bound(SOCK_DGRAM, "/run/tess/queue/1001");
    const int buffer = 6 * 1024 * 1024; /* as a queue of the framework has it */
    setsockopt(queue, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
    set_path(&process, "/run/tess/queue/2001");
    need(listen(lines, 64), "listen");
    need(listen(frames, 64), "listen");
    pthread_t second;
    if (pthread_create(&second, NULL, write_answers, NULL) != 0) return 1;
    fd_set all;
    FD_ZERO(&all);
    FD_SET(lines, &all);
    FD_SET(frames, &all);
    int highest = lines > frames ? lines : frames;
    for (;;) {
        fd_set ready = all;
        if (select(highest + 1, &ready, NULL, NULL, NULL) < 0) continue;
        for (int fd = 0; fd <= highest; ++fd) {
            if (!FD_ISSET(fd, &ready)) continue;
            if (fd == lines || fd == frames)
                accept_client(fd, fd == frames, &all, &highest);
            else
                read_client(fd, &all);
        }
    }
}
