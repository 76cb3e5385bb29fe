// Runs a command on a transport stream, in N channels at once, and reports what each run cost.
//
//   bench_pacer [--channels N] [--rate BITS --seconds N [--spread MS]] --dir DIR FILE
//       -- COMMAND... [-- ...]
//
// With --rate, every channel reads a pipe that gets the first N seconds of FILE in real time, seven
// packets (1316 bytes) a write, as a UDP receiver would hand them on. The channels' writes are
// spread evenly over the time between two writes of one channel. A pipe that is full is tried again
// when the channel's next write is due, so a slow channel delays no other. Without --rate, standard
// input is FILE itself. With --spread, the channels begin at places of FILE that are spread evenly
// over its first MS milliseconds, so that they are not all cut at the same moment; with several
// commands, one channel of each begins at the same place.
//
// Channel k works in DIR/k, which is made, with standard error in the file `stderr` there. Several
// commands, each after its own "--", are dealt to the channels in turn. Printed on standard output:
//
//   channel <k> command <c> status <wait status> user_us <n> sys_us <n> maxrss_kib <n>
//   pacer start_us <time of day> writes <n> late_mean_us <n> late_max_us <n> late_share <fraction>
//       full <n>                                                                 (all on one line)
//
// A write is late when it is done after its time; late_share is the share of those later than the
// time between two writes of one channel, `full` counts writes that met a full pipe.
//
// Small on purpose: a child's maximum RSS is never below that of the process that started it.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <stdnoreturn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum {
    write_bytes = 7 * 188,
    max_channels = 256,
    max_commands = 8,
};

#define NS_PER_SECOND INT64_C(1000000000)
#define START_DELAY_NS (NS_PER_SECOND / 5) // for every channel to have reached its first read

struct channel {
    pid_t pid;
    int fd;                // the pipe's write end; -1 without --rate or when the reader is gone
    size_t sent;           // bytes
    const uint8_t* stream; // its own beginning
};

static struct {
    unsigned channels;
    int64_t rate; // bits per second of each channel; 0: FILE itself is standard input
    int64_t seconds;
    int64_t spread_ms;
    const char* dir;
    const char* file;
    char** commands[max_commands]; // each ends with a null pointer
    unsigned command_count;
} options = {.channels = 1, .dir = "."};

static struct {
    int64_t start_us; // since the epoch: when the first write was due
    int64_t writes, late_sum_ns, late_max_ns, late_count, full;
} totals;

static struct channel channels[max_channels];

static noreturn void die(const char* what)
{
    perror(what);
    exit(1);
}

static int64_t clock_ns(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return t.tv_sec * NS_PER_SECOND + t.tv_nsec;
}

static int64_t now_ns(void)
{
    return clock_ns(CLOCK_MONOTONIC);
}

static void sleep_until(int64_t ns)
{
    const struct timespec t = {ns / NS_PER_SECOND, ns % NS_PER_SECOND};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, NULL) == EINTR) {
    }
}

static void redirect(int from, int to)
{
    if (from < 0 || dup2(from, to) < 0)
        die("redirect");
}

// In the child. It dies with the pacer, so that an interrupted run leaves nothing behind.
static void become(unsigned k, int input)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/%u", options.dir, k);
    if ((mkdir(path, 0755) < 0 && errno != EEXIST) || chdir(path) < 0)
        die(path);
    redirect(input, STDIN_FILENO);
    redirect(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    redirect(open("stderr", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);

    char** command = options.commands[k % options.command_count];
    execvp(command[0], command);
    die(command[0]);
}

static void start_channel(unsigned k)
{
    struct channel* c = &channels[k];
    int ends[2] = {-1, -1};
    if (options.rate == 0) {
        ends[0] = open(options.file, O_RDONLY | O_CLOEXEC);
        if (ends[0] < 0)
            die(options.file);
    } else if (pipe2(ends, O_CLOEXEC) < 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) < 0) {
        die("pipe");
    }

    c->pid = fork();
    if (c->pid < 0)
        die("fork");
    if (c->pid == 0)
        become(k, ends[0]);
    close(ends[0]);
    c->fd = ends[1];
}

// Writes what is due and not yet sent: one block, more only after a full pipe.
static void feed(struct channel* c, size_t due)
{
    while (c->fd >= 0 && c->sent < due) {
        // Not above PIPE_BUF, so it is written whole or not at all.
        if (write(c->fd, c->stream + c->sent, write_bytes) == write_bytes) {
            c->sent += write_bytes;
        } else if (errno == EAGAIN) {
            totals.full++;
            return;
        } else {
            close(c->fd);
            c->fd = -1;
        }
    }
}

static void note_lateness(int64_t late_ns, int64_t interval_ns)
{
    totals.writes++;
    totals.late_sum_ns += late_ns;
    if (late_ns > totals.late_max_ns)
        totals.late_max_ns = late_ns;
    if (late_ns > interval_ns)
        totals.late_count++;
}

static size_t spread_bytes(void)
{
    return (size_t)(options.rate / 8 * options.spread_ms / 1000);
}

static size_t place_of(unsigned k)
{
    const unsigned first = k - k % options.command_count;
    return spread_bytes() / 188 * first / options.channels * 188;
}

static void feed_all(const uint8_t* stream)
{
    const int64_t blocks = options.rate * options.seconds / (8 * write_bytes);
    const int64_t slots = blocks * options.channels;
    const double slot_ns =
        8.0 * write_bytes * (double)NS_PER_SECOND / (double)options.rate / options.channels;
    for (unsigned k = 0; k < options.channels; k++)
        channels[k].stream = stream + place_of(k);
    const int64_t start = now_ns() + START_DELAY_NS;
    totals.start_us = (clock_ns(CLOCK_REALTIME) + START_DELAY_NS) / 1000;

    for (int64_t slot = 0; slot < slots; slot++) {
        const int64_t due = start + (int64_t)(slot_ns * (double)slot);
        if (now_ns() < due)
            sleep_until(due);
        note_lateness(now_ns() - due, (int64_t)(slot_ns * options.channels));
        const int64_t block = slot / options.channels;
        feed(&channels[slot % options.channels], (size_t)(block + 1) * write_bytes);
    }
}

static const uint8_t* map_stream(void)
{
    const size_t need = (size_t)(options.rate * options.seconds / 8) + spread_bytes();
    const int fd = open(options.file, O_RDONLY | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) < 0)
        die(options.file);
    if ((size_t)info.st_size < need) {
        fprintf(stderr, "%s: too short for %lld s\n", options.file, (long long)options.seconds);
        exit(1);
    }
    const uint8_t* stream = mmap(NULL, need, PROT_READ, MAP_PRIVATE, fd, 0);
    if (stream == MAP_FAILED)
        die("mmap");
    close(fd);
    return stream;
}

// Ends the channels' input; false when one of them failed.
static bool reap(void)
{
    for (unsigned k = 0; k < options.channels; k++)
        if (channels[k].fd >= 0)
            close(channels[k].fd);

    bool good = true;
    for (unsigned k = 0; k < options.channels; k++) {
        int status = 0;
        struct rusage u;
        if (wait4(channels[k].pid, &status, 0, &u) < 0)
            die("wait4");
        good = good && status == 0;
        printf("channel %u command %u status %d user_us %lld sys_us %lld maxrss_kib %ld\n", k,
               k % options.command_count, status,
               (long long)u.ru_utime.tv_sec * 1000000 + u.ru_utime.tv_usec,
               (long long)u.ru_stime.tv_sec * 1000000 + u.ru_stime.tv_usec, u.ru_maxrss);
    }
    if (totals.writes > 0)
        printf("pacer start_us %lld writes %lld late_mean_us %lld late_max_us %lld late_share %.6f "
               "full %lld\n",
               (long long)totals.start_us, (long long)totals.writes,
               (long long)(totals.late_sum_ns / totals.writes / 1000),
               (long long)(totals.late_max_ns / 1000),
               (double)totals.late_count / (double)totals.writes, (long long)totals.full);
    return good;
}

static noreturn void usage(void)
{
    fprintf(stderr, "usage: bench_pacer [--channels N] [--rate BITS --seconds N [--spread MS]] "
                    "--dir DIR FILE -- COMMAND... [-- ...]\n");
    exit(1);
}

static void split_commands(char** argument)
{
    for (; *argument != NULL; argument++) {
        if (strcmp(*argument, "--") != 0)
            continue;
        *argument = NULL;
        if (options.command_count == max_commands || argument[1] == NULL)
            usage();
        options.commands[options.command_count++] = argument + 1;
    }
    if (options.command_count == 0)
        usage();
}

int main(int argc, char** argv)
{
    const struct option names[] = {
        {"channels", required_argument, NULL, 'c'}, {"rate", required_argument, NULL, 'r'},
        {"seconds", required_argument, NULL, 's'},  {"spread", required_argument, NULL, 'p'},
        {"dir", required_argument, NULL, 'd'},      {NULL, 0, NULL, 0}};
    for (int c; (c = getopt_long(argc, argv, "+", names, NULL)) != -1;) {
        switch (c) {
        case 'c':
            options.channels = (unsigned)strtoul(optarg, NULL, 0);
            break;
        case 'r':
            options.rate = strtoll(optarg, NULL, 0);
            break;
        case 's':
            options.seconds = strtoll(optarg, NULL, 0);
            break;
        case 'p':
            options.spread_ms = strtoll(optarg, NULL, 0);
            break;
        case 'd':
            options.dir = optarg;
            break;
        default:
            usage();
        }
    }
    if (optind >= argc || options.channels < 1 || options.channels > max_channels)
        usage();
    options.file = argv[optind];
    split_commands(argv + optind + 1);

    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_TIMERSLACK, 1UL);
    for (unsigned k = 0; k < options.channels; k++)
        start_channel(k);
    if (options.rate != 0)
        feed_all(map_stream());
    return reap() ? 0 : 1;
}
