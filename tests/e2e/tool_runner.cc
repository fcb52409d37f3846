#include "e2e/tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace Veldrin::Testing {

namespace {

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

struct Pipe {
  int read_end = -1;
  int write_end = -1;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    read_end = fds[0];
    write_end = fds[1];
  }
  ~Pipe() {
    close_fd(read_end);
    close_fd(write_end);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
};

// The runner writes to a child that may stop reading at any time: a write to a closed pipe has
// to come back as EPIPE instead of ending the test process.
void ignore_sigpipe() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

RunResult run_program(const RunRequest& request) {
  ignore_sigpipe();

  // Everything the child needs is prepared before fork: between fork and exec only
  // async-signal-safe calls are made.
  std::vector<std::string> words;
  words.push_back(request.argv0 ? *request.argv0 : request.executable);
  words.insert(words.end(), request.args.begin(), request.args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  Pipe out_pipe;
  Pipe err_pipe;
  std::optional<Pipe> in_pipe;
  int null_fd = -1;
  if (request.input) {
    in_pipe.emplace();
  } else {
    null_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null_fd < 0) throw std::runtime_error("can't open /dev/null");
  }

  pid_t child = ::fork();
  if (child < 0) {
    close_fd(null_fd);
    throw std::runtime_error("fork failed");
  }
  if (child == 0) {
    int in_fd = in_pipe ? in_pipe->read_end : null_fd;
    if (::dup2(in_fd, 0) < 0 || ::dup2(out_pipe.write_end, 1) < 0 ||
        ::dup2(err_pipe.write_end, 2) < 0)
      ::_exit(127);
    ::signal(SIGPIPE, SIG_DFL);  // an ignored signal would be inherited across exec
    ::setpgid(0, 0);             // its own group, so that a time-out ends its children too
    if (!request.working_dir.empty() && ::chdir(request.working_dir.c_str()) != 0) ::_exit(127);
    ::execv(request.executable.c_str(), argv.data());
    ::_exit(127);
  }

  ::setpgid(child, child);  // as the child does, whichever runs first
  close_fd(null_fd);
  close_fd(out_pipe.write_end);
  close_fd(err_pipe.write_end);
  int in_fd = -1;
  if (in_pipe) {
    close_fd(in_pipe->read_end);
    in_fd = in_pipe->write_end;
    in_pipe->write_end = -1;
    ::fcntl(in_fd, F_SETFL, ::fcntl(in_fd, F_GETFL) | O_NONBLOCK);
  }

  RunResult result;
  const std::string empty;
  const std::string& input = request.input ? *request.input : empty;
  size_t written = 0;
  if (in_fd >= 0 && input.empty()) close_fd(in_fd);

  int out_fd = out_pipe.read_end;
  int err_fd = err_pipe.read_end;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(request.timeout_seconds);
  char chunk[65536];
  while (out_fd >= 0 || err_fd >= 0 || in_fd >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) {
      ::kill(-child, SIGKILL);
      result.timed_out = true;
      break;
    }
    pollfd fds[3];
    int count = 0;
    int out_slot = -1, err_slot = -1, in_slot = -1;
    if (out_fd >= 0) {
      out_slot = count;
      fds[count++] = {out_fd, POLLIN, 0};
    }
    if (err_fd >= 0) {
      err_slot = count;
      fds[count++] = {err_fd, POLLIN, 0};
    }
    if (in_fd >= 0) {
      in_slot = count;
      fds[count++] = {in_fd, POLLOUT, 0};
    }
    int ready =
        ::poll(fds, static_cast<nfds_t>(count), static_cast<int>(left < 1000 ? left : 1000));
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    auto drain = [&](int slot, int& fd, std::string& into) {
      if (slot < 0 || fds[slot].revents == 0) return;
      ssize_t got = ::read(fd, chunk, sizeof chunk);
      if (got > 0)
        into.append(chunk, static_cast<size_t>(got));
      else if (got == 0 || errno != EINTR)
        close_fd(fd);
    };
    drain(out_slot, out_fd, result.out);
    drain(err_slot, err_fd, result.err);
    if (in_slot >= 0 && fds[in_slot].revents != 0) {
      ssize_t put = ::write(in_fd, input.data() + written, input.size() - written);
      if (put > 0) {
        written += static_cast<size_t>(put);
        if (written == input.size()) close_fd(in_fd);
      } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
        close_fd(in_fd);  // the child has stopped reading
      }
    }
  }
  close_fd(in_fd);
  close_fd(out_fd);
  close_fd(err_fd);
  out_pipe.read_end = -1;
  err_pipe.read_end = -1;

  int wait_status = 0;
  while (::waitpid(child, &wait_status, 0) < 0) {
    if (errno != EINTR) return result;
  }
  if (WIFEXITED(wait_status)) {
    result.status = WEXITSTATUS(wait_status);
  } else if (WIFSIGNALED(wait_status)) {
    result.signal = WTERMSIG(wait_status);
  }
  return result;
}

std::string binary_path(const std::string& name) {
  return std::string(VDX_BINARY_DIR) + "/" + name;
}

std::string source_path(const std::string& relative) {
  return std::string(VDX_SOURCE_DIR) + "/" + relative;
}

RunResult run_vdxindex(const std::vector<std::string>& args, const std::string& working_dir,
                       const std::optional<std::string>& input) {
  RunRequest request;
  request.executable = binary_path("vdxindex");
  request.args = args;
  request.working_dir = working_dir;
  request.input = input;
  return run_program(request);
}

std::string read_file(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) return {};
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

bool write_file(const std::string& path, const std::string& bytes) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  if (!stream) return false;
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream.close();
  return static_cast<bool>(stream);
}

bool file_exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace Veldrin::Testing
