/* A small "top": one line of JSON every second, with the load and the processes that took most time.
 *   ./example-monitor [SECONDS]
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <vela/core/json.h>
#include <vela/monitor/load.h>
#include <vela/monitor/process.h>

#define PROCESSES_MAX 1024
#define SHOWN 3

/* Copies are small without the command line. */
struct figures {
    int32_t pid;
    uint64_t start_ms, cpu_ms, rss_kb;
    uint64_t used_ms; /* since the round before */
    char name[16];
};

struct round {
    struct figures seen[PROCESSES_MAX];
    size_t count;
};

static int note(const vela_process *process, void *arg)
{
    struct round *round = arg;
    struct figures *f = &round->seen[round->count++];
    f->pid = process->pid;
    f->start_ms = process->start_ms;
    f->cpu_ms = process->cpu_ms;
    f->rss_kb = process->rss_kb;
    f->used_ms = 0;
    memcpy(f->name, process->name, sizeof f->name);
    return round->count == PROCESSES_MAX; /* enough */
}

/* Both rounds are in order of process numbers. A number that was given to another process has another start. */
static void compare(const struct round *before, struct round *now)
{
    size_t b = 0;
    for (size_t n = 0; n < now->count; ++n) {
        struct figures *f = &now->seen[n];
        while (b < before->count && before->seen[b].pid < f->pid) ++b;
        const int same = b < before->count && before->seen[b].pid == f->pid && before->seen[b].start_ms == f->start_ms;
        f->used_ms = f->cpu_ms - (same ? before->seen[b].cpu_ms : 0);
    }
}

static int by_use(const void *a, const void *b)
{
    const struct figures *x = a, *y = b;
    return x->used_ms < y->used_ms ? 1 : x->used_ms > y->used_ms ? -1 : 0;
}

static void print_line(const vela_cpu_sample *before, const vela_cpu_sample *sample, struct round *now)
{
    json_t *line = vela_load_json(before, sample); /* ours to release */
    json_t *top = json_array();
    qsort(now->seen, now->count, sizeof now->seen[0], by_use);
    for (size_t i = 0; i < now->count && i < SHOWN; ++i) {
        const struct figures *f = &now->seen[i];
        if (f->used_ms == 0) break;
        json_array_append_new(top, json_pack("{s:i, s:s, s:I, s:I}", "pid", (int)f->pid, "name", f->name, "cpu_ms",
                                             (json_int_t)f->used_ms, "rss_kb", (json_int_t)f->rss_kb));
    }
    json_object_set_new(line, "top", top);
    json_dumpf(line, stdout, JSON_COMPACT);
    putchar('\n');
    fflush(stdout);
    json_decref(line);
}

int main(int argc, char **argv)
{
    static struct round rounds[2];
    vela_cpu_sample samples[2];
    long left = argc > 1 ? atol(argv[1]) : 10;
    int now = 0;

    if (vela_cpu_sample_take(&samples[now]) != 0) return 1;
    if (vela_process_foreach(0, note, &rounds[now]) < 0) return 1;
    while (left-- > 0) {
        sleep(1);
        const int before = now;
        now = !now;
        rounds[now].count = 0;
        const int error = vela_process_foreach(0, note, &rounds[now]);
        if (error < 0 || vela_cpu_sample_take(&samples[now]) != 0) {
            fprintf(stderr, "cannot read /proc: %s\n", strerror(error < 0 ? -error : EIO));
            return 1;
        }
        compare(&rounds[before], &rounds[now]);
        print_line(&samples[before], &samples[now], &rounds[now]);
    }
    return 0;
}
