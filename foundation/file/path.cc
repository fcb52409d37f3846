#include "foundation/file/path.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <cstdlib>

#include "foundation/file/in_stream.h"
#include "foundation/file/out_stream.h"

namespace Korvix::File {

namespace {

bool stat_of(const std::string& path, struct stat& info) {
  return ::stat(path.c_str(), &info) == 0;
}

bool opens(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// A buffer for the reentrant user and group look-ups, sized as the system asks.
class LookupBuffer {
 public:
  explicit LookupBuffer(int name) {
    long wanted = ::sysconf(name);
    size = wanted > 0 ? static_cast<size_t>(wanted) : 16384;
    data = static_cast<char*>(std::malloc(size));
    if (data == nullptr) std::abort();
  }
  ~LookupBuffer() { std::free(data); }
  LookupBuffer(const LookupBuffer&) = delete;
  LookupBuffer& operator=(const LookupBuffer&) = delete;

  char* data;
  size_t size;
};

}  // namespace

Path::Path(const std::string& directory, const std::string& name) {
  path = directory;
  if (!directory.empty() && directory.back() != '/') path += '/';
  path += name;
}

uint64_t Path::length() const {
  struct stat info;
  if (!stat_of(path, info)) return 0;
  return static_cast<uint64_t>(info.st_size);
}

bool Path::exists() const {
  struct stat info;
  return stat_of(path, info);
}

bool Path::is_dir() const {
  struct stat info;
  return stat_of(path, info) && S_ISDIR(info.st_mode);
}

bool Path::readable() const {
  return opens(path, O_RDONLY);
}

bool Path::writeable() const {
  return opens(path, O_RDWR);
}

int64_t Path::last_modified() const {
  struct stat info;
  if (!stat_of(path, info)) return 0;
  return static_cast<int64_t>(info.st_mtime);
}

uint32_t Path::mode() const {
  struct stat info;
  if (!stat_of(path, info)) return 0;
  return static_cast<uint32_t>(info.st_mode);
}

uint32_t Path::owner() const {
  struct stat info;
  if (!stat_of(path, info)) return 0;
  return static_cast<uint32_t>(info.st_uid);
}

uint32_t Path::group() const {
  struct stat info;
  if (!stat_of(path, info)) return 0;
  return static_cast<uint32_t>(info.st_gid);
}

bool Path::set_mode(uint32_t new_mode) const {
  return ::chmod(path.c_str(), static_cast<mode_t>(new_mode)) == 0;
}

bool Path::set_owner(const std::string& owner_name, const std::string& group_name_) const {
  int64_t uid = user_id(owner_name);
  int64_t gid = group_id(group_name_);
  if (uid < 0 || gid < 0) return false;
  return ::chown(path.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)) == 0;
}

bool Path::touch(uint32_t new_mode) const {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, static_cast<mode_t>(new_mode));
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

bool Path::set_last_modified(int64_t time) const {
  struct utimbuf times;
  times.actime = ::time(nullptr);
  times.modtime = static_cast<time_t>(time);
  return ::utime(path.c_str(), &times) == 0;
}

bool Path::rename(const Path& other) const {
  return ::rename(path.c_str(), other.path.c_str()) == 0;
}

bool Path::erase() const {
  if (is_dir()) return std::system(("rm -rf \"" + path + "\"").c_str()) == 0;
  return ::unlink(path.c_str()) == 0;
}

bool Path::read_all(std::string& text) const {
  InStream in(path);
  if (!in.is_open()) return false;
  char buffer[4096];
  while (in) {
    in.read(buffer, sizeof(buffer));
    text.append(buffer, static_cast<size_t>(in.gcount()));
  }
  return !in.bad();
}

bool Path::write_all(const std::string& text) const {
  OutStream out(path);
  if (!out.is_open()) return false;
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.close();
  return !out.fail();
}

bool Path::is_absolute() const {
  return !path.empty() && path[0] == '/';
}

std::string Path::last_component() const {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Path::parent() const {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string Path::stem() const {
  std::string last = last_component();
  size_t dot = last.rfind('.');
  return dot == std::string::npos ? last : last.substr(0, dot);
}

std::string Path::extension() const {
  std::string last = last_component();
  size_t dot = last.rfind('.');
  return dot == std::string::npos ? std::string() : last.substr(dot + 1);
}

Path Path::resolve(const Path& other) const {
  if (other.is_absolute()) return other;
  std::string start = parent();
  std::string rest = other.path;
  while (rest.size() > 3 && rest.compare(0, 3, "../") == 0) {
    start = Path(start).parent();
    rest.erase(0, 3);
  }
  return Path(start, rest);
}

std::string user_name(uint32_t uid) {
  LookupBuffer buffer(_SC_GETPW_R_SIZE_MAX);
  struct passwd entry;
  struct passwd* found = nullptr;
  if (::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data, buffer.size, &found) != 0 ||
      found == nullptr)
    return "UNKNOWN";
  return found->pw_name;
}

std::string group_name(uint32_t gid) {
  LookupBuffer buffer(_SC_GETGR_R_SIZE_MAX);
  struct group entry;
  struct group* found = nullptr;
  if (::getgrgid_r(static_cast<gid_t>(gid), &entry, buffer.data, buffer.size, &found) != 0 ||
      found == nullptr)
    return "UNKNOWN";
  return found->gr_name;
}

int64_t user_id(const std::string& name) {
  LookupBuffer buffer(_SC_GETPW_R_SIZE_MAX);
  struct passwd entry;
  struct passwd* found = nullptr;
  if (::getpwnam_r(name.c_str(), &entry, buffer.data, buffer.size, &found) != 0 || found == nullptr)
    return -1;
  return static_cast<int64_t>(found->pw_uid);
}

int64_t group_id(const std::string& name) {
  LookupBuffer buffer(_SC_GETGR_R_SIZE_MAX);
  struct group entry;
  struct group* found = nullptr;
  if (::getgrnam_r(name.c_str(), &entry, buffer.data, buffer.size, &found) != 0 || found == nullptr)
    return -1;
  return static_cast<int64_t>(found->gr_gid);
}

std::string int_to_octal(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%o", value);
  return text;
}

uint32_t octal_to_int(const std::string& text) {
  uint32_t value = 0;
  for (const char c : text) value = value * 8 + (static_cast<unsigned char>(c) - uint32_t{'0'});
  return value;
}

}  // namespace Korvix::File
