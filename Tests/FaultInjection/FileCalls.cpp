// Preloaded into a program under trial (LD_PRELOAD): numbers its calls on entries below one directory, writes
// them to a record, and ends the process at one of them or lets it fail. Controlled by the environment:
//   VELLICOR_CALLS_ROOT    the directory; calls on anything else are not counted
//   VELLICOR_CALLS_RECORD  the file that the record is appended to
//   VELLICOR_CALLS_POINT   the number of the call to act at, from 1
//   VELLICOR_CALLS_ACTION  "die" before it, "stop" before it until somebody continues the process,
//                          "tear" (write half, then die), "short" (transfer half), or an errno
//   VELLICOR_CALLS_DATA    when set, the record holds the bytes that were written
// FileCallRecord.h reads the record and describes its lines.

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int mostDescriptors = 1024;

const char* variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

std::string pathOf(int fd) {
  char link[64], target[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = ::readlink(link, target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

std::string pathAt(int directory, const char* path) {
  if (*path == '/' || directory == AT_FDCWD) return path;
  const std::string base = pathOf(directory);
  return std::strcmp(path, ".") == 0 ? base : base + "/" + path;
}

/// The C library's own function of a name.
template <typename Function>
Function* next(const char* symbol) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, symbol));
}

struct State {
  State() {
    const char* path = variable("VELLICOR_CALLS_RECORD");
    // Not through the names below, which count.
    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    record = *path == 0 ? -1 : next<int(const char*, int, ...)>("open64")(path, flags, 0600);
    for (int fd = 0; fd < mostDescriptors; ++fd) inherited[fd] = isOpen(fd);
  }
  ~State() {
    for (int fd = 0; fd < mostDescriptors; ++fd) {
      if (isOpen(fd) && !inherited[fd]) write("0\tleak\tok\t" + pathOf(fd) + "\t\t0\t0\t0\n");
    }
  }
  void write(const std::string& bytes) const {
    if (record >= 0 && ::write(record, bytes.data(), bytes.size()) < 0) ::_exit(125);
  }

  const std::string root = variable("VELLICOR_CALLS_ROOT");
  const long point = std::strtol(variable("VELLICOR_CALLS_POINT"), nullptr, 10);
  const std::string action = variable("VELLICOR_CALLS_ACTION");
  const bool keepsData = *variable("VELLICOR_CALLS_DATA") != 0;
  std::atomic<long> calls = 0;
  int record = -1;
  bool inherited[mostDescriptors];
};

State& state() {
  static State only;
  return only;
}
// Notes the inherited descriptors before the program opens any.
[[maybe_unused]] const State& atStart = state();

struct Call {
  const char* name;
  std::string path;
  std::string otherPath{};
  long long offset = 0;
  unsigned long long length = 0;
  int flags = 0;
  const void* data = nullptr;
};

/// In one write, so that threads do not mix.
void record(long number, const Call& call, const std::string& result) {
  std::string line = std::to_string(number) + "\t" + call.name + "\t" + result + "\t" + call.path + "\t" +
                     call.otherPath + "\t" + std::to_string(call.offset) + "\t" +
                     std::to_string(call.length) + "\t" + std::to_string(call.flags) + "\n";
  if (call.data != nullptr && state().keepsData)
    line.append(static_cast<const char*>(call.data), call.length);
  state().write(line);
}

/// Counts the call and lets `perform(length)` do it with the C library's own function, or what the point asks
/// for instead; `length` is less than the call's own for a transfer that is cut short.
template <typename Perform>
auto through(Call call, Perform&& perform) -> decltype(perform(call.length)) {
  State& s = state();
  const int before = errno;
  const bool counts = !s.root.empty() && (call.path.starts_with(s.root + "/") || call.path == s.root);
  errno = before;
  if (!counts) return perform(call.length);
  const long number = ++s.calls;
  const bool isPoint = number == s.point;
  const bool isCut = isPoint && (s.action == "short" || s.action == "tear");
  const bool isStop = isPoint && s.action == "stop";
  if (isStop) ::raise(SIGSTOP);
  if (isPoint && !isCut && !isStop) {
    record(number, call, s.action);
    if (s.action == "die") ::kill(::getpid(), SIGKILL);
    errno = static_cast<int>(std::strtol(s.action.c_str(), nullptr, 10));
    return -1;
  }
  if (isCut) call.length /= 2;
  const auto result = perform(call.length);
  const int code = errno;
  record(number, call, isCut ? s.action : result < 0 ? std::to_string(code) : "ok");
  if (isPoint && s.action == "tear") ::kill(::getpid(), SIGKILL);
  errno = code;
  return result;
}

template <typename Real, typename... Arguments>
auto plain(const char* symbol, Call call, Arguments... arguments) {
  return through(std::move(call), [&](unsigned long long) { return next<Real>(symbol)(arguments...); });
}

int openThrough(const char* symbol, const char* path, int flags, mode_t mode) {
  return plain<int(const char*, int, ...)>(symbol, {.name = "open", .path = path, .flags = flags}, path,
                                           flags, mode);
}

int openAtThrough(const char* symbol, int directory, const char* path, int flags, mode_t mode) {
  return plain<int(int, const char*, int, ...)>(
      symbol, {.name = "open", .path = pathAt(directory, path), .flags = flags}, directory, path, flags,
      mode);
}

}  // namespace

// An optional argument is passed where a fixed one would be, so the functions below name it.
// Each function replaces the C library's function of the name after it; that name, not a declaration from a header,
// binds the program's calls to it.
#define STANDS_FOR(symbol) __asm__(symbol)

extern "C" {

int trialOpen(const char* path, int flags, mode_t mode) STANDS_FOR("open");
int trialOpen64(const char* path, int flags, mode_t mode) STANDS_FOR("open64");
int trialOpenAt(int directory, const char* path, int flags, mode_t mode) STANDS_FOR("openat");
int trialOpenAt64(int directory, const char* path, int flags, mode_t mode) STANDS_FOR("openat64");
long trialSyscall(long number, long first, const char* path, void* third, long fourth, long fifth, long sixth)
    STANDS_FOR("syscall");
int trialStat(const char* path, struct stat* status) STANDS_FOR("stat64");
int trialStat32(const char* path, struct stat* status) STANDS_FOR("stat");
int trialLstat(const char* path, struct stat* status) STANDS_FOR("lstat64");
int trialLstat32(const char* path, struct stat* status) STANDS_FOR("lstat");
int trialFstat(int fd, struct stat* status) STANDS_FOR("fstat64");
int trialFstatAt(int directory, const char* path, struct stat* status, int flags) STANDS_FOR("fstatat64");
int trialStatvfs(const char* path, struct statvfs* status) STANDS_FOR("statvfs64");
ssize_t trialPread(int fd, void* buffer, size_t count, off_t offset) STANDS_FOR("pread64");
ssize_t trialPwrite(int fd, const void* buffer, size_t count, off_t offset) STANDS_FOR("pwrite64");
int trialFtruncate(int fd, off_t size) STANDS_FOR("ftruncate64");
int trialFsync(int fd) STANDS_FOR("fsync");
int trialFlock(int fd, int operation) STANDS_FOR("flock");
int trialMkdir(const char* path, mode_t mode) STANDS_FOR("mkdir");
int trialMkdirAt(int directory, const char* path, mode_t mode) STANDS_FOR("mkdirat");
int trialRmdir(const char* path) STANDS_FOR("rmdir");
int trialUnlink(const char* path) STANDS_FOR("unlink");
int trialRemove(const char* path) STANDS_FOR("remove");
int trialUnlinkAt(int directory, const char* path, int flags) STANDS_FOR("unlinkat");
int trialRename(const char* from, const char* to) STANDS_FOR("rename");
int trialRenameAt(int fromDirectory, const char* from, int toDirectory, const char* to)
    STANDS_FOR("renameat");
int trialExchange(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags)
    STANDS_FOR("renameat2");

int trialOpen(const char* path, int flags, mode_t mode) { return openThrough("open", path, flags, mode); }

int trialOpen64(const char* path, int flags, mode_t mode) { return openThrough("open64", path, flags, mode); }

int trialOpenAt(int directory, const char* path, int flags, mode_t mode) {
  return openAtThrough("openat", directory, path, flags, mode);
}

int trialOpenAt64(int directory, const char* path, int flags, mode_t mode) {
  return openAtThrough("openat64", directory, path, flags, mode);
}

/// Of the calls without a function of their own, the one that opens without following links.
long trialSyscall(long number, long first, const char* path, void* third, long fourth, long fifth,
                  long sixth) {
  // The standard library itself makes the others, also while it guards what is below.
  if (number != SYS_openat2) {
    return next<long(long, ...)>("syscall")(number, first, path, third, fourth, fifth, sixth);
  }
  return plain<long(long, ...)>("syscall", {.name = "open", .path = pathAt(static_cast<int>(first), path)},
                                number, first, path, third, fourth, fifth, sixth);
}

int trialStat(const char* path, struct stat* status) {
  return plain<int(const char*, struct stat*)>("stat64", {.name = "stat", .path = path}, path, status);
}

int trialStat32(const char* path, struct stat* status) {
  return plain<int(const char*, struct stat*)>("stat", {.name = "stat", .path = path}, path, status);
}

int trialLstat(const char* path, struct stat* status) {
  return plain<int(const char*, struct stat*)>("lstat64", {.name = "stat", .path = path}, path, status);
}

int trialLstat32(const char* path, struct stat* status) {
  return plain<int(const char*, struct stat*)>("lstat", {.name = "stat", .path = path}, path, status);
}

int trialFstat(int fd, struct stat* status) {
  return plain<int(int, struct stat*)>("fstat64", {.name = "stat", .path = pathOf(fd)}, fd, status);
}

int trialFstatAt(int directory, const char* path, struct stat* status, int flags) {
  return plain<int(int, const char*, struct stat*, int)>(
      "fstatat64", {.name = "stat", .path = pathAt(directory, path)}, directory, path, status, flags);
}

int trialStatvfs(const char* path, struct statvfs* status) {
  return plain<int(const char*, struct statvfs*)>("statvfs64", {.name = "statvfs", .path = path}, path,
                                                  status);
}

ssize_t trialPread(int fd, void* buffer, size_t count, off_t offset) {
  return through({.name = "pread", .path = pathOf(fd), .offset = offset, .length = count},
                 [&](unsigned long long length) {
                   return next<ssize_t(int, void*, size_t, off_t)>("pread64")(fd, buffer, length, offset);
                 });
}

ssize_t trialPwrite(int fd, const void* buffer, size_t count, off_t offset) {
  return through({.name = "pwrite", .path = pathOf(fd), .offset = offset, .length = count, .data = buffer},
                 [&](unsigned long long length) {
                   return next<ssize_t(int, const void*, size_t, off_t)>("pwrite64")(fd, buffer, length,
                                                                                     offset);
                 });
}

int trialFtruncate(int fd, off_t size) {
  return plain<int(int, off_t)>("ftruncate64", {.name = "ftruncate", .path = pathOf(fd), .offset = size}, fd,
                                size);
}

int trialFsync(int fd) { return plain<int(int)>("fsync", {.name = "fsync", .path = pathOf(fd)}, fd); }

int trialFlock(int fd, int operation) {
  return plain<int(int, int)>("flock", {.name = "flock", .path = pathOf(fd), .flags = operation}, fd,
                              operation);
}

int trialMkdir(const char* path, mode_t mode) {
  return plain<int(const char*, mode_t)>("mkdir", {.name = "mkdir", .path = path}, path, mode);
}

int trialMkdirAt(int directory, const char* path, mode_t mode) {
  return plain<int(int, const char*, mode_t)>("mkdirat", {.name = "mkdir", .path = pathAt(directory, path)},
                                              directory, path, mode);
}

int trialRmdir(const char* path) {
  return plain<int(const char*)>("rmdir", {.name = "remove", .path = path}, path);
}

int trialUnlink(const char* path) {
  return plain<int(const char*)>("unlink", {.name = "unlink", .path = path}, path);
}

int trialRemove(const char* path) {
  return plain<int(const char*)>("remove", {.name = "remove", .path = path}, path);
}

int trialUnlinkAt(int directory, const char* path, int flags) {
  return plain<int(int, const char*, int)>(
      "unlinkat", {.name = "remove", .path = pathAt(directory, path), .flags = flags}, directory, path,
      flags);
}

int trialRename(const char* from, const char* to) {
  return plain<int(const char*, const char*)>("rename", {.name = "rename", .path = from, .otherPath = to},
                                              from, to);
}

int trialRenameAt(int fromDirectory, const char* from, int toDirectory, const char* to) {
  return plain<int(int, const char*, int, const char*)>(
      "renameat",
      {.name = "rename", .path = pathAt(fromDirectory, from), .otherPath = pathAt(toDirectory, to)},
      fromDirectory, from, toDirectory, to);
}

int trialExchange(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
  return plain<int(int, const char*, int, const char*, unsigned)>(
      "renameat2",
      {.name = "exchange", .path = pathAt(fromDirectory, from), .otherPath = pathAt(toDirectory, to)},
      fromDirectory, from, toDirectory, to, flags);
}

}  // extern "C"
