// Runs other programs: with fork and exec, shell commands with popen. What a child needs is made before the fork, as
// another thread may hold a lock of libc at that moment, which nobody gives back in the child. A child leaves with
// _exit, so that the parent's unwritten output is not written twice.

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/wait.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/stream.h>
#include <vela/core/internal/text.h>
#include <vela/exec/exec.h>

namespace
{

constexpr const char *log_module = "libvela_exec";
constexpr const char *capture_log_module = "crash"; // whose reports are made of captured output

constexpr const char *wrapper_path = "/usr/bin/syswrapper.sh";
constexpr std::string_view parent_variable = "SYSWRAPPER_PPID="; // tells the script who asked
constexpr const char *null_device = "/dev/null";

constexpr size_t argument_max = 4096;             // characters
constexpr size_t wrapper_slots = 51;              // script, command, 48 arguments, null pointer
constexpr size_t last_argument = 49;              // slot of the last argument that is passed
constexpr uint32_t output_step = 1024;            // bytes read at a time
constexpr uint32_t json_output_max = 1024 * 1024; // bytes of a JSON member

/// Where the wrapper script is: empty until it was found, then for the life of the process.
constinit const char *found_wrapper = "";

using record_ptr = std::unique_ptr<exec_record, vela::releaser<exec_destroy>>;

struct wrapper_call {
    const char *argv[wrapper_slots];
    size_t last; // filled slot
    pid_t caller;
    vela::heap<const char *> environment = {}; // of the script
    vela::c_string line = {};                  // the joined argv, where the call is traced
};

record_ptr make_record(std::string_view path, size_t slots)
{
    record_ptr record{static_cast<exec_record *>(calloc(1, sizeof(exec_record)))};
    if (!record) return {};
    record->argv = static_cast<char **>(calloc(slots, sizeof(char *)));
    if (!record->argv) return {};
    vela::copy_text(record->path, path);
    record->argv[0] = record->path;
    return record;
}

size_t count_texts(va_list texts)
{
    va_list walk;
    va_copy(walk, texts);
    size_t count = 0;
    while (va_arg(walk, const char *)) ++count;
    va_end(walk);
    return count;
}

bool same_text(const char *a, const char *b) { return vela::view(a) == vela::view(b) && !a == !b; }

// On purpose: any child that ends is taken, not this one in particular.
void reap_a_child(const char *step)
{
    constexpr int end_by_signal = 0x7f;
    int status = 0;
    while (wait(&status) < 0 && errno == EINTR) {}
    // On purpose: the exit-code byte, which is 0 after a signal.
    if (status & end_by_signal) log_debug_as(step, "[ERROR] exit abnormally. code: %d", (status >> 8) & 0xff);
}

const char *locate_syswrapper()
{
    if (*found_wrapper == '\0' && access(wrapper_path, X_OK) == 0) {
        found_wrapper = wrapper_path;
        log_trace("syswrapper to use: %s", found_wrapper);
    }
    return *found_wrapper ? found_wrapper : nullptr;
}

/// This process's environment with one variable set, which is borrowed as the others are. Null without memory.
vela::heap<const char *> environment_with(const char *variable, size_t name_length)
{
    char *const *const current = environ; // null after clearenv()
    size_t count = 0;
    while (current && current[count]) ++count;
    vela::heap<const char *> changed{static_cast<const char **>(calloc(count + 2, sizeof(char *)))};
    if (!changed) return {};
    const char **end = std::copy_if(current, current + count, changed.get(),
                                    [=](const char *old) { return strncmp(old, variable, name_length) != 0; });
    *end = variable;
    return changed;
}

/// The filled slots of a call with blanks between them, or null without memory.
vela::c_string joined(const wrapper_call &call)
{
    size_t size = 0;
    for (size_t i = 0; i <= call.last; ++i) size += strlen(call.argv[i]) + 1;
    vela::c_string line{static_cast<char *>(malloc(size))};
    if (!line) return {};
    char *end = line.get();
    for (size_t i = 0; i <= call.last; ++i) {
        end = stpcpy(end, call.argv[i]);
        *end++ = ' ';
    }
    end[-1] = '\0';
    return line;
}

// By descriptor, not by stream: reopening a stream would first write what the parent left in it.
void redirect_to_null(int flags, std::initializer_list<int> streams)
{
    const int null = open(null_device, flags);
    if (null < 0) return;
    for (const int stream : streams) (void)dup2(null, stream);
    if (null > STDERR_FILENO) close(null);
}

[[noreturn]] void run_wrapper(const wrapper_call &call)
{
    // The one call between fork and exec that may wait for a lock: exec.h says when.
    if (call.line)
        log_trace_as("syswrapper_impl", "Executing syswrapper command (pid: %u, parent: %d, command: %s)",
                     static_cast<unsigned>(getpid()), call.caller, call.line.get());
    if (libvela_log_use_syslog) {
        redirect_to_null(O_RDONLY, {STDIN_FILENO});
        redirect_to_null(O_WRONLY, {STDOUT_FILENO, STDERR_FILENO});
    }
    execve(call.argv[0], const_cast<char **>(call.argv), const_cast<char **>(call.environment.get()));
    _exit(0);
}

[[noreturn]] void run_wrapper_detached(const wrapper_call &call)
{
    const pid_t child = fork();
    if (child < 0) log_error_as("syswrapper_impl", "fork failed: %s", strerror(errno));
    if (child > 0) _exit(0);
    run_wrapper(call); // also where the second fork failed: better attached than not at all
}

/// Text in a growing block that ends up in a caller's hands.
struct captured {
    vela::c_string text;
    uint32_t capacity;
    uint32_t length = 0;

    [[nodiscard]] uint32_t room() const { return capacity - length; }

    bool grow(uint32_t max)
    {
        const auto larger = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{capacity} * 2, max));
        char *moved = static_cast<char *>(realloc(text.get(), larger));
        if (!moved) return false;
        (void)text.release();
        text.reset(moved);
        capacity = larger;
        return true;
    }
};

void read_output(FILE *stream, const char *command, captured &out, uint32_t max)
{
    static constexpr const char *step = "popen_alloc_output";
    while (!feof(stream)) {
        if (out.capacity < max && out.room() < output_step && !out.grow(max)) {
            log_error_as(step, "Failed to reallocate buffer, output truncated");
            return;
        }
        if (out.room() == 0) return;
        char *end = out.text.get() + out.length;
        out.length += static_cast<uint32_t>(vela::read_through_signals(stream, end, std::min(out.room(), output_step)));
        if (ferror(stream)) {
            log_error_as(step, "Failed to read from stream, command='%s'", command);
            return;
        }
    }
}

/// Ends a text of `length` bytes in a block of `size`: behind its last byte, or on it where the block is full.
uint32_t terminate(char *text, uint32_t length, uint32_t size)
{
    const uint32_t end = std::min(length, size - 1);
    text[end] = '\0';
    return end;
}

} // namespace

exec_record *exec_create(const char *path, ...)
{
    if (!path || !*path) return nullptr;
    va_list arguments;
    va_start(arguments, path);
    const size_t count = count_texts(arguments);
    record_ptr record = make_record(path, count + 2);
    if (record) {
        record->argc = static_cast<int32_t>(count + 1);
        for (size_t i = 1; i <= count; ++i) record->argv[i] = strndup(va_arg(arguments, const char *), argument_max);
    }
    va_end(arguments);
    return record.release();
}

void exec_destroy(exec_record *record)
{
    if (!record) return;
    for (int32_t i = 1; i < record->argc; ++i) free(record->argv[i]);
    free(record->argv);
    free(record);
}

exec_record *exec_copy(const exec_record *src)
{
    if (!src) return nullptr;
    // On purpose: as many slots as arguments, without a null pointer behind them. A copy is not for execution.
    record_ptr copy = make_record(vela::field(src->path), static_cast<size_t>(std::max(src->argc, 1)));
    if (!copy) return nullptr;
    copy->argc = src->argc;
    for (int32_t i = 1; i < src->argc; ++i) {
        if (src->argv[i]) copy->argv[i] = strndup(src->argv[i], argument_max);
    }
    return copy.release();
}

int32_t exec_cmp(const exec_record *a, const exec_record *b)
{
    if (!a || !b) return -1;
    if (a == b) return 0;
    if (a->argc != b->argc) return -ENOENT;
    if (strncmp(a->path, b->path, argument_max) != 0) return -ESRCH;
    for (int32_t i = 1; i < a->argc; ++i) {
        if (!same_text(a->argv[i], b->argv[i])) return i;
    }
    return 0;
}

void forkexec(char *const argv[])
{
    if (!argv || !argv[0]) return;
    const pid_t child = fork();
    if (child < 0) {
        log_error("fork failed: %s", strerror(errno));
        return;
    }
    if (child == 0) {
        execv(argv[0], argv);
        _exit(0);
    }
    reap_a_child(__func__);
}

void syswrapper_impl(int wait, const char *command, ...)
{
    wrapper_call call = {.argv = {locate_syswrapper(), command}, .last = command ? size_t{1} : 0, .caller = getpid()};
    if (!call.argv[0]) {
        log_debug("[ERROR] unable to locate syswrapper.sh, '%s' skipped!", command ? command : "");
        return;
    }

    va_list arguments;
    va_start(arguments, command);
    const char *argument = nullptr;
    while (command && call.last < last_argument && (argument = va_arg(arguments, const char *))) {
        if (*argument) call.argv[++call.last] = argument;
    }
    va_end(arguments);

    const vela::formatted<32> caller("%s%d", parent_variable.data(), call.caller);
    call.environment = environment_with(caller.c_str(), parent_variable.size());
    const bool traced = libvela_log_enabled(LIBVELA_LOG_TRACE);
    if (traced) call.line = joined(call);
    if (!call.environment || (traced && !call.line)) {
        (void)fprintf(stderr, "exec:%d: Out of memory\n", __LINE__); // the call is lost, not the process
        return;
    }

    const pid_t child = fork();
    if (child < 0) {
        log_error("fork failed: %s", strerror(errno));
        return;
    }
    if (child == 0) wait ? run_wrapper(call) : run_wrapper_detached(call);
    reap_a_child(__func__);
}

int32_t popen_get_output(const char *command, char *buf, uint32_t size)
{
    if (size == 0) return -1;
    vela::pipe_ptr pipe{popen(command, "re")};
    if (!pipe) {
        log_error("get_output: popen[%s] -> NULL", command);
        return -1;
    }
    const auto length = static_cast<uint32_t>(vela::read_through_signals(pipe.get(), buf, size));

    const int status = pclose(pipe.release());
    if (status == -1) {
        log_warn("error on pclose for[%s] errno[%s]", command, strerror(errno));
    } else if (status != 0) {
        log_warn("[%s] -> [%d]", command, status);
    }
    return static_cast<int32_t>(terminate(buf, length, size));
}

char *popen_alloc_output(const char *command, uint32_t max)
{
    max = std::max(max, 1U); // the NUL at least
    captured out = {.text = nullptr, .capacity = std::min(max, output_step)};
    out.text.reset(static_cast<char *>(malloc(out.capacity)));
    if (!out.text) {
        log_error("Failed to allocate buffer");
        return nullptr;
    }
    vela::pipe_ptr pipe{popen(command, "re")};
    if (!pipe) {
        log_error("open failed on '%s': %s", command, strerror(errno));
        return nullptr;
    }
    read_output(pipe.get(), command, out, max);

    const int status = pclose(pipe.release());
    if (status == -1) {
        log_error("pclose failed on '%s': %s", command, strerror(errno));
    } else if (status != 0) {
        log_warn("'%s' returned rc=%d", command, status);
    }
    terminate(out.text.get(), out.length, out.capacity);
    return out.text.release();
}

int json_object_capture_popen(json_t *obj, const char *key, const char *command)
{
    if (!command) return 0;
    const vela::c_string output{popen_alloc_output(command, json_output_max)};
    if (!output) {
        LIBVELA_LOG(LIBVELA_LOG_WARN, capture_log_module, "Failed to capture the output of command %s", command);
    }
    const int set = json_object_set_new(obj, key, json_string(output ? output.get() : ""));
    return output && set == 0 ? 0 : -1;
}
