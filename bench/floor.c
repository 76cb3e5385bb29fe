// The floor of the program's design: the least that any program of the same shape must do. It
// keeps the same 8 MiB window with the same look-ahead, refill and flush, looks at each packet's
// header and appends each packet with one write(2) to a file that changes every few seconds. What
// the real program costs above this is its own: tables, keyframes, cuts, playlists.
//
//   bench_floor [--seconds N] [--keep N] [--only PID]... < stream.ts
//
// The files are floor.<set>.<number>.ts in the working directory. Without --only there is one set,
// which takes every packet. With it, the packets of the n-th PID go to the n-th set, and all others
// are dropped: the packets that separate renditions hold.
//
// Stream time is the PTS of the first PID on which a video PES starts. The payload_unit_start bit
// has to be looked at anyway, so the clock costs one small parse per picture, none per packet, and
// the files hold what they say at any bit rate, constant or not.
#include <fcntl.h>
#include <getopt.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <stdnoreturn.h>
#include <string.h>
#include <unistd.h>

enum {
    packet_bytes = 188,
    sync_byte = 0x47,
    pid_count = 8192,
    no_pid = pid_count,
    window_bytes = 8 << 20,
    look_ahead_bytes = 8192 * packet_bytes,
    refill_bytes = 16 * packet_bytes, // asked for beyond the look-ahead
    pts_ticks_per_second = 90000,
    max_sets = 3,
};

#define PTS_MODULUS (INT64_C(1) << 33)

struct file_set {
    int fd;          // -1 before the first packet of each file
    unsigned number; // of the file that is open, or opened next
};

static struct {
    unsigned seconds; // length of a file
    unsigned keep;    // files of a set that stay, the open one included; 0: all
} options = {4, 14};

static struct file_set sets[max_sets];
static unsigned set_count;
static int8_t set_of_pid[pid_count]; // -1: dropped

static unsigned clock_pid = no_pid;
static int64_t file_start = -1; // PTS at which the open files began

static noreturn void die(const char* what)
{
    perror(what);
    exit(1);
}

static void file_name(char* name, size_t size, unsigned set, unsigned number)
{
    snprintf(name, size, "floor.%u.%08u.ts", set, number);
}

static void write_packet(unsigned set, const uint8_t* p)
{
    struct file_set* s = &sets[set];
    if (s->fd < 0) {
        char name[64];
        file_name(name, sizeof name, set, s->number);
        s->fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (s->fd < 0)
            die(name);
    }
    if (write(s->fd, p, packet_bytes) != packet_bytes)
        die("write");
}

static void change_files(void)
{
    for (unsigned set = 0; set < set_count; set++) {
        struct file_set* s = &sets[set];
        if (s->fd >= 0)
            close(s->fd);
        s->fd = -1;
        s->number++;
        if (options.keep != 0 && s->number >= options.keep) {
            char name[64];
            file_name(name, sizeof name, set, s->number - options.keep);
            unlink(name); // absent where the set had no packet in that time
        }
    }
}

// The PTS of the video PES that starts in this packet, -1 when none does.
// PES header, ISO/IEC 13818-1, 2.4.3.6: packet_start_code_prefix:24 stream_id:8
// PES_packet_length:16 flags:16 PES_header_data_length:8, then '001x' PTS[32..30]:3 '1'
// PTS[29..15]:15 '1' PTS[14..0]:15 '1'
static int64_t video_pts(const uint8_t* packet)
{
    const unsigned adaptation_bytes = (packet[3] & 0x20) != 0 ? 1U + packet[4] : 0;
    const unsigned payload = 4 + adaptation_bytes;
    if ((packet[3] & 0x10) == 0 || payload + 14 > packet_bytes)
        return -1;

    const uint8_t* p = packet + payload;
    const bool is_video = p[0] == 0 && p[1] == 0 && p[2] == 1 && (p[3] & 0xF0) == 0xE0;
    const bool has_pts = (p[7] & 0x80) != 0;
    if (!is_video || !has_pts)
        return -1;
    return (int64_t)(p[9] & 0x0E) << 29 | p[10] << 22 | (p[11] & 0xFE) << 14 | p[12] << 7 |
           p[13] >> 1;
}

static void tick(unsigned pid, const uint8_t* packet)
{
    if (clock_pid != no_pid && clock_pid != pid)
        return;
    const int64_t pts = video_pts(packet);
    if (pts < 0)
        return;
    clock_pid = pid;

    if (file_start < 0)
        file_start = pts;
    const int64_t elapsed = (pts - file_start) & (PTS_MODULUS - 1);
    const bool backwards = elapsed >= PTS_MODULUS / 2; // a picture shown before the file's first
    if (backwards || elapsed < (int64_t)options.seconds * pts_ticks_per_second)
        return;
    file_start = pts;
    change_files();
}

static void take_packet(const uint8_t* p)
{
    if (p[0] != sync_byte) {
        fprintf(stderr, "sync lost\n");
        exit(1);
    }
    const unsigned pid = (p[1] & 0x1FU) << 8 | p[2];
    if ((p[1] & 0x40) != 0)
        tick(pid, p);
    if (set_of_pid[pid] >= 0)
        write_packet((unsigned)set_of_pid[pid], p);
}

static void copy_stream(void)
{
    uint8_t* const buffer = malloc(window_bytes);
    if (buffer == NULL)
        die("malloc");
    uint8_t* const fence = buffer + window_bytes;
    uint8_t* data = buffer;
    uint8_t* end = buffer;
    bool at_end = false;

    while (!at_end || end - data >= packet_bytes) {
        if (fence - data < window_bytes / 4) {
            const size_t unread = (size_t)(end - data);
            memmove(buffer, data, unread);
            data = buffer;
            end = buffer + unread;
        }
        while (!at_end && end - data < look_ahead_bytes + refill_bytes) {
            const ssize_t got = read(STDIN_FILENO, end, (size_t)(fence - end));
            if (got <= 0)
                at_end = true;
            else
                end += got;
        }
        const ptrdiff_t required = packet_bytes + (at_end ? 0 : look_ahead_bytes);
        for (; end - data >= required; data += packet_bytes)
            take_packet(data);
    }
    free(buffer);
}

static void write_only(const char* argument)
{
    const unsigned long pid = strtoul(argument, NULL, 0);
    if (pid >= pid_count || set_count == max_sets) {
        fprintf(stderr, "at most %d times a PID below %d\n", max_sets, pid_count);
        exit(1);
    }
    if (set_count == 0)
        memset(set_of_pid, -1, sizeof set_of_pid);
    set_of_pid[pid] = (int8_t)set_count++;
}

int main(int argc, char** argv)
{
    const struct option names[] = {{"seconds", required_argument, NULL, 's'},
                                   {"keep", required_argument, NULL, 'k'},
                                   {"only", required_argument, NULL, 'o'},
                                   {NULL, 0, NULL, 0}};
    for (int c; (c = getopt_long(argc, argv, "", names, NULL)) != -1;) {
        switch (c) {
        case 's':
            options.seconds = (unsigned)strtoul(optarg, NULL, 0);
            break;
        case 'k':
            options.keep = (unsigned)strtoul(optarg, NULL, 0);
            break;
        case 'o':
            write_only(optarg);
            break;
        default:
            fprintf(stderr, "usage: %s [--seconds N] [--keep N] [--only PID]... < stream.ts\n",
                    argv[0]);
            return 1;
        }
    }
    if (set_count == 0)
        set_count = 1;
    for (unsigned set = 0; set < max_sets; set++)
        sets[set].fd = -1;

    copy_stream();
    return 0;
}
