#include "site/world.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <net/if.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace site
{
namespace
{

// The world's own corner: real /proc and /dev, and the upper halves of the overlays.
constexpr const char *real_proc = "/run/.world/proc";
constexpr const char *real_dev = "/run/.world/dev";
constexpr const char *real_sys = "/run/.world/sys";
constexpr int processes_shown = 1024; // /proc/1 to this one lead to the real ones

[[noreturn]] void give_up(const char *what)
{
    fprintf(stderr,
            "cannot lay out a simulated device: %s: %s\n"
            "It needs private namespaces: run as root, or allow user namespaces "
            "(sysctl kernel.unprivileged_userns_clone=1, user.max_user_namespaces above 0).\n",
            what, strerror(errno));
    exit(1);
}

void must(bool ok, const char *what)
{
    if (!ok) give_up(what);
}

void write_map(const char *path, unsigned outside)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    must(fd >= 0 && dprintf(fd, "0 %u 1\n", outside) > 0, path);
    close(fd);
}

void take_namespaces(network which)
{
    const unsigned uid = geteuid();
    const unsigned gid = getegid();
    const int common =
        CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWPID | (which == network::own ? CLONE_NEWNET : 0);
    if (uid == 0 && unshare(common) == 0) return;

    must(unshare(common | CLONE_NEWUSER) == 0, "unshare");
    if (FILE *deny = fopen("/proc/self/setgroups", "we")) {
        fputs("deny", deny);
        fclose(deny);
    }
    write_map("/proc/self/uid_map", uid);
    write_map("/proc/self/gid_map", gid);
}

void make_directory(const std::string &path) { std::filesystem::create_directories(path); }

void mount_tmpfs(const std::string &path, const char *options = "mode=0755")
{
    make_directory(path);
    must(mount("world", path.c_str(), "tmpfs", MS_NOSUID, options) == 0, path.c_str());
}

void bind(const std::string &from, const std::string &to)
{
    make_directory(to);
    must(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, to.c_str());
}

void link_entry(const std::string &from, const std::string &to) { (void)!symlink(from.c_str(), to.c_str()); }

// What a fresh tmpfs would hide of the tree that the running program belongs to is bound back at its old place.
struct kept_directory {
    std::string path;
    int fd;
};

std::vector<kept_directory> keep_directories()
{
    std::vector<kept_directory> kept;
    for (const char *path : {SITE_SOURCE_DIR, SITE_BUILD_DIR}) {
        const int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) kept.push_back({path, fd});
    }
    return kept;
}

void restore_directories(const std::vector<kept_directory> &kept)
{
    for (const auto &[path, fd] : kept) {
        if (!std::filesystem::exists(path)) bind("/proc/self/fd/" + std::to_string(fd), path);
        close(fd);
    }
}

// Links every entry of a directory, numbers (processes) left out.
void link_entries(const std::string &from, const std::string &to)
{
    DIR *entries = opendir(from.c_str());
    must(entries != nullptr, from.c_str());
    while (const dirent *entry = readdir(entries)) {
        const std::string name = entry->d_name;
        if (name[0] == '.' || isdigit(static_cast<unsigned char>(name[0]))) continue;
        link_entry(from + "/" + name, to + "/" + name);
    }
    closedir(entries);
}

void lay_out_proc()
{
    make_directory(real_proc);
    // A proc of the new process namespace where the host lets us mount one, else the host's.
    if (mount("proc", real_proc, "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) bind("/proc", real_proc);
    mount_tmpfs("/proc");
    link_entries(real_proc, "/proc");
    for (int pid = 1; pid <= processes_shown; ++pid) {
        link_entry(std::string(real_proc) + "/" + std::to_string(pid), "/proc/" + std::to_string(pid));
    }
}

// A sysfs of the new network namespace, whose entries a test can replace.
void lay_out_sys()
{
    make_directory(real_sys);
    if (mount("sysfs", real_sys, "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) bind("/sys", real_sys);
    mount_tmpfs("/sys");
    link_entries(real_sys, "/sys");
}

void lay_out_dev()
{
    bind("/dev", real_dev);
    mount_tmpfs("/dev");
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "ptmx", "pts"}) {
        link_entry(std::string(real_dev) + "/" + name, std::string("/dev/") + name);
    }
    link_entry("/proc/self/fd", "/dev/fd");
    link_entry("/proc/self/fd/0", "/dev/stdin");
    link_entry("/proc/self/fd/1", "/dev/stdout");
    link_entry("/proc/self/fd/2", "/dev/stderr");
    make_directory("/dev/shm");
}

// Directories of our own in the upper half, since those of the lower half belong to users an unprivileged world does
// not have. They merge with what they cover.
void make_writable(const std::string &path, std::initializer_list<const char *> directories)
{
    const std::string upper = "/run/.world/upper" + path;
    const std::string work = "/run/.world/work" + path;
    make_directory(upper);
    make_directory(work);
    for (const char *directory : directories) {
        if (std::filesystem::is_directory(path + "/" + directory)) make_directory(upper + "/" + directory);
    }
    const std::string options = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + work;
    must(mount("overlay", path.c_str(), "overlay", 0, options.c_str()) == 0, path.c_str());
}

void bring_up_loopback()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    snprintf(request.ifr_name, sizeof request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    must(fd >= 0 && ioctl(fd, SIOCSIFFLAGS, &request) == 0, "loopback interface");
    close(fd);
}

void lay_out_files()
{
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    std::filesystem::current_path("/");
    const auto kept = keep_directories();
    mount_tmpfs("/run");
    lay_out_proc();
    lay_out_sys();
    lay_out_dev();
    mount_tmpfs("/tmp", "mode=1777");
    mount_tmpfs("/var/log");
    make_writable("/etc", {"ssl", "ssl/certs"});
    make_writable("/usr", {"bin", "sbin", "lib", "etc", "local", "local/bin"});
    restore_directories(kept);
}

pid_t inner = 0;

void pass_on(int signal) { kill(inner, signal); }

[[noreturn]] void wait_for_inner()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction action = {};
        action.sa_handler = pass_on;
        sigaction(signal, &action, nullptr);
    }
    int status = 0;
    for (pid_t ended = 0; ended != inner;) { // orphans of the world end here too
        ended = wait(&status);
        if (ended < 0 && errno != EINTR) _exit(1);
    }
    if (WIFSIGNALED(status)) {
        fprintf(stderr, "the world ended by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
        _exit(128 + WTERMSIG(status));
    }
    _exit(WEXITSTATUS(status));
}

} // namespace

void enter_world(network which)
{
    take_namespaces(which);
    // The first process of the new namespace ends the world with itself; a second level below it does the work, so
    // that signals keep their default effect there.
    for (int level = 0; level < 2; ++level) {
        inner = fork();
        must(inner >= 0, "fork");
        if (inner != 0) wait_for_inner();
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    lay_out_files();
    bring_up_loopback();
    must(sethostname("vela-ap", 7) == 0, "host name");
    for (const char *name : {"LIBVELA_VERBOSITY", "LIBVELA_FACILITIES", "XWD_FD", "SYSWRAPPER_PPID"}) unsetenv(name);
    setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("LC_ALL", "C", 1);
}

void leave_network()
{
    must(unshare(CLONE_NEWNET) == 0, "a second network");
    bring_up_loopback();
}

void put_file(const std::string &path, std::string_view content, mode_t mode)
{
    make_directory(std::filesystem::path(path).parent_path());
    unlink(path.c_str());
    std::ofstream(path, std::ios::binary) << content;
    chmod(path.c_str(), mode);
}

void put_program(const std::string &path, std::string_view script)
{
    put_file(path, std::string("#!/bin/sh\n") + std::string(script), 0755);
}

void remove_file(const std::string &path)
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool exists(const std::string &path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

int run(const std::string &command)
{
    const int status = system(command.c_str());
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string output_of(const std::string &command)
{
    std::string text;
    FILE *pipe = popen(command.c_str(), "re");
    if (!pipe) return text;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) != 0;) text.append(chunk, n);
    pclose(pipe);
    return text;
}

} // namespace site
