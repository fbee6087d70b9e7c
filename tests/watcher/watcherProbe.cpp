//     watcher_probe RECORD [PLAN-FOR-RUN-0 PLAN-FOR-RUN-1 ...]
//
// A target for the watcher's tests.  It appends "start PID MS" (MS from
// CLOCK_MONOTONIC) to RECORD and follows the plan of its run (the count of
// start lines before; later runs repeat the last plan): "exit=N" exits with
// N at once; else it appends "signal RUN N" for each SIGINT, SIGHUP, SIGTERM
// or SIGUSR1 and dies of it unless the plan says "keep=N".  It blocks
// nothing: the test reads its inherited mask from /proc.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

static const char* g_Record;
static int g_Run;
static sigset_t g_Keep;

static void Append(const char* line) {
    int fd = open(g_Record, O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd >= 0 && write(fd, line, strlen(line)) < 0) {
    }
    close(fd);
}

// Runs with `sig` blocked, so the raise is delivered, by default, on return.
static void OnSignal(int sig) {
    char line[64];
    snprintf(line, sizeof line, "signal %d %d\n", g_Run, sig);
    Append(line);
    if (sigismember(&g_Keep, sig) != 1) {
        signal(sig, SIG_DFL);
        raise(sig);
    }
}

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    g_Record = argv[1];
    char line[4096];
    if (FILE* in = fopen(g_Record, "r")) {
        while (fgets(line, sizeof line, in))
            g_Run += strncmp(line, "start ", 6) == 0;
        fclose(in);
    }
    sigemptyset(&g_Keep);
    char* plan = argc > 2 ? argv[2 + (g_Run < argc - 2 ? g_Run : argc - 3)] : nullptr;
    for (char* item = plan ? strtok(plan, ",") : nullptr; item; item = strtok(nullptr, ","))
        sigaddset(&g_Keep, atoi(item + 5));
    for (int sig : {SIGINT, SIGHUP, SIGTERM, SIGUSR1})
        signal(sig, OnSignal);

    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    snprintf(line, sizeof line, "start %d %lld\n", int(getpid()),
             (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000);
    Append(line);
    if (plan && strncmp(plan, "exit=", 5) == 0)
        return atoi(plan + 5);
    alarm(60); // bounds a probe that a failed test leaves behind
    for (;;)
        pause();
}
