#ifndef KORVIX_FILE_PATH_H
#define KORVIX_FILE_PATH_H

#include <cstdint>
#include <ctime>
#include <string>

namespace Korvix::File {

// A path on a POSIX file system, kept as given: there is no normalisation, and the separator
// is "/". The tests answer from one stat or open each and give a neutral answer on failure;
// nothing here throws or logs.
class Path {
 public:
  Path() = default;
  explicit Path(std::string path_) : path(std::move(path_)) {}
  // Puts a "/" between the two unless directory is empty or already ends in one.
  Path(const std::string& directory, const std::string& name);

  // The size in bytes, 0 when the file can't be examined.
  uint64_t length() const;
  bool exists() const;
  bool is_dir() const;
  bool readable() const;
  bool writeable() const;
  // Modification time in seconds since 1970, 0 on failure.
  int64_t last_modified() const;
  uint32_t mode() const;
  uint32_t owner() const;
  uint32_t group() const;

  bool set_mode(uint32_t mode) const;
  // Names, not numbers; an unknown name gives false.
  bool set_owner(const std::string& owner, const std::string& group) const;
  // Creates the file, or empties an existing one.
  bool touch(uint32_t mode) const;
  bool set_last_modified(int64_t time) const;
  bool rename(const Path& other) const;
  // A directory goes with everything below it, through the shell; the path is quoted only by
  // double quotes, so callers must be trusted.
  bool erase() const;
  // Appends the whole file to text.
  bool read_all(std::string& text) const;
  // Replaces the file with text.
  bool write_all(const std::string& text) const;

  bool is_absolute() const;
  std::string last_component() const;
  std::string parent() const;
  std::string stem() const;
  std::string extension() const;
  // other relative to the directory of this path, with its leading "../" taken off.
  Path resolve(const Path& other) const;

  bool operator==(const Path& other) const = default;

  std::string path;
};

// Owner and group numbers and names. A number without a name gives "UNKNOWN"; a name without a
// number gives -1.
std::string user_name(uint32_t uid);
std::string group_name(uint32_t gid);
int64_t user_id(const std::string& name);
int64_t group_id(const std::string& name);

// Modes as octal text; the digits are not checked, and an empty text gives 0.
std::string int_to_octal(uint32_t value);
uint32_t octal_to_int(const std::string& text);

}  // namespace Korvix::File

#endif
