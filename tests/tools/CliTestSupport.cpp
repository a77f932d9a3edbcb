#include "tests/tools/CliTestSupport.h"

#include <fcntl.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace clitest {

namespace {

std::vector<std::string> Environment(const std::vector<std::string>& changes) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const size_t equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const std::string& change : changes) {
    const size_t equals = change.find('=');
    if (equals == std::string::npos) {
      variables.erase(change);
    } else {
      variables[change.substr(0, equals)] = change.substr(equals + 1);
    }
  }
  std::vector<std::string> result;
  for (const auto& variable : variables) result.push_back(variable.first + "=" + variable.second);
  return result;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

int Status(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

// Spawns with stdout/stderr going to the given descriptors (stdin /dev/null).
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int outFd, int errFd) {
  std::vector<std::string> args = argv;
  std::vector<std::string> environment = Environment(env);
  std::vector<char*> argp = Pointers(args);
  std::vector<char*> envp = Pointers(environment);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outFd, 1);
  posix_spawn_file_actions_adddup2(&actions, errFd, 2);
  pid_t pid = -1;
  if (posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

}  // namespace

SRun Run(const std::vector<std::string>& argv, const std::vector<std::string>& env, int limitSeconds) {
  SRun run;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return run;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return run;
  }
  const pid_t pid = Spawn(argv, env, out[1], err[1]);
  close(out[1]);
  close(err[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
  bool killed = false;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  while (pid > 0 && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    if (poll(fds, 2, killed ? 1000 : static_cast<int>(left.count())) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[65536];
      const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(n));
      } else {
        fds[i].fd = -1;
      }
    }
  }
  close(out[0]);
  close(err[0]);
  if (pid > 0) {
    int raw = 0;
    waitpid(pid, &raw, 0);
    run.status = Status(raw);
  }
  return run;
}

Background::Background(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                       const std::string& logPath) {
  const int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  m_pid = Spawn(argv, env, fd, fd);
  close(fd);
}

Background::~Background() { Kill(); }

int Background::Kill(int signal) {
  if (m_pid <= 0) return m_status;
  kill(m_pid, signal);
  int raw = 0;
  waitpid(m_pid, &raw, 0);
  m_pid = -1;
  m_status = Status(raw);
  return m_status;
}

int Background::Wait(int limitSeconds) {
  if (m_pid <= 0) return m_status;
  for (int i = 0; i < limitSeconds * 20; ++i) {
    int raw = 0;
    if (waitpid(m_pid, &raw, WNOHANG) == m_pid) {
      m_pid = -1;
      m_status = Status(raw);
      return m_status;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return -1;
}

bool WaitForSocket(const std::string& socketPath, int limitSeconds) {
  for (int i = 0; i < limitSeconds * 20; ++i) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketPath.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    if (ok) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

bool WaitForText(const std::string& path, const std::string& text, int limitSeconds) {
  for (int i = 0; i < limitSeconds * 20; ++i) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    if (content.str().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

namespace {

struct SPngRead {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~SPngRead() { png_destroy_read_struct(&png, &info, nullptr); }
};

// libpng calls without C++ objects in the frame (longjmp on error).
bool DecodePng(FILE* file, png_structp png, png_infop info, SPng* out, png_bytep* rows, bool readRows) {
  if (setjmp(png_jmpbuf(png))) return false;
  if (!readRows) {
    png_init_io(png, file);
    png_read_info(png, info);
    out->width = png_get_image_width(png, info);
    out->height = png_get_image_height(png, info);
    out->bitDepth = png_get_bit_depth(png, info);
    out->colourType = png_get_color_type(png, info);
    return true;
  }
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  return true;
}

}  // namespace

bool ReadPng(const std::string& path, SPng& png) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return false;
  SPngRead state;
  state.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  state.info = state.png ? png_create_info_struct(state.png) : nullptr;
  bool ok = state.info && DecodePng(file, state.png, state.info, &png, nullptr, false);
  if (ok) {
    const size_t rowBytes = png_get_rowbytes(state.png, state.info);
    png.bytes.assign(rowBytes * png.height, 0);
    std::vector<png_bytep> rows(png.height);
    for (unsigned int y = 0; y < png.height; ++y) rows[y] = png.bytes.data() + y * rowBytes;
    ok = DecodePng(file, state.png, state.info, &png, rows.data(), true);
  }
  fclose(file);
  return ok;
}

namespace {

class JsonParser {
 public:
  explicit JsonParser(const std::string& text) : m_text(text) {}

  bool Document(JsonValue& value, std::string& error) {
    Space();
    if (!Value(value, 0)) {
      error = m_error + " at byte " + std::to_string(m_pos);
      return false;
    }
    Space();
    if (m_pos != m_text.size()) {
      error = "trailing text at byte " + std::to_string(m_pos);
      return false;
    }
    return true;
  }

 private:
  bool Fail(const char* why) {
    m_error = why;
    return false;
  }
  void Space() {
    while (m_pos < m_text.size() && strchr(" \t\r\n", m_text[m_pos]) && m_text[m_pos]) ++m_pos;
  }
  bool Literal(const char* word) {
    const size_t n = strlen(word);
    if (m_text.compare(m_pos, n, word) != 0) return Fail("bad literal");
    m_pos += n;
    return true;
  }
  bool Value(JsonValue& value, int depth) {
    if (depth > 64) return Fail("too deep");
    if (m_pos >= m_text.size()) return Fail("unexpected end");
    const char c = m_text[m_pos];
    if (c == '{') return Object(value, depth);
    if (c == '[') return Array(value, depth);
    if (c == '"') {
      value.type = JsonValue::EType::kString;
      return String(value.string);
    }
    if (c == 't' || c == 'f') {
      value.type = JsonValue::EType::kBool;
      value.boolean = c == 't';
      return Literal(c == 't' ? "true" : "false");
    }
    if (c == 'n') return Literal("null");
    return Number(value);
  }
  bool Number(JsonValue& value) {
    const size_t start = m_pos;
    if (m_pos < m_text.size() && m_text[m_pos] == '-') ++m_pos;
    if (m_pos >= m_text.size() || !isdigit(static_cast<unsigned char>(m_text[m_pos]))) return Fail("bad number");
    if (m_text[m_pos] == '0' && m_pos + 1 < m_text.size() && isdigit(static_cast<unsigned char>(m_text[m_pos + 1]))) {
      return Fail("leading zero");
    }
    while (m_pos < m_text.size() && strchr("0123456789.eE+-", m_text[m_pos]) && m_text[m_pos]) ++m_pos;
    value.type = JsonValue::EType::kNumber;
    value.number = std::stod(m_text.substr(start, m_pos - start));
    return true;
  }
  bool String(std::string& out) {
    ++m_pos;  // opening quote
    while (m_pos < m_text.size()) {
      const unsigned char c = static_cast<unsigned char>(m_text[m_pos++]);
      if (c == '"') return true;
      if (c < 0x20) return Fail("control character in string");
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      if (m_pos >= m_text.size()) return Fail("unexpected end");
      const char e = m_text[m_pos++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          if (m_pos + 4 > m_text.size()) return Fail("short \\u escape");
          const unsigned long code = std::stoul(m_text.substr(m_pos, 4), nullptr, 16);
          m_pos += 4;
          // The tests only need the code points they check; keep BMP as UTF-8.
          if (code < 0x80) {
            out += static_cast<char>(code);
          } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
          } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
          }
          break;
        }
        default:
          return Fail("bad escape");
      }
    }
    return Fail("unterminated string");
  }
  bool Array(JsonValue& value, int depth) {
    value.type = JsonValue::EType::kArray;
    ++m_pos;
    Space();
    if (m_pos < m_text.size() && m_text[m_pos] == ']') return ++m_pos, true;
    for (;;) {
      value.array.emplace_back();
      Space();
      if (!Value(value.array.back(), depth + 1)) return false;
      Space();
      if (m_pos >= m_text.size()) return Fail("unexpected end");
      if (m_text[m_pos] == ']') return ++m_pos, true;
      if (m_text[m_pos++] != ',') return Fail("expected , or ]");
    }
  }
  bool Object(JsonValue& value, int depth) {
    value.type = JsonValue::EType::kObject;
    ++m_pos;
    Space();
    if (m_pos < m_text.size() && m_text[m_pos] == '}') return ++m_pos, true;
    for (;;) {
      Space();
      if (m_pos >= m_text.size() || m_text[m_pos] != '"') return Fail("expected a key");
      std::string key;
      if (!String(key)) return false;
      Space();
      if (m_pos >= m_text.size() || m_text[m_pos++] != ':') return Fail("expected :");
      Space();
      if (!Value(value.object[key], depth + 1)) return false;
      Space();
      if (m_pos >= m_text.size()) return Fail("unexpected end");
      if (m_text[m_pos] == '}') return ++m_pos, true;
      if (m_text[m_pos++] != ',') return Fail("expected , or }");
    }
  }

  const std::string& m_text;
  size_t m_pos = 0;
  std::string m_error;
};

}  // namespace

bool ParseJson(const std::string& text, JsonValue& value, std::string& error) {
  value = JsonValue();
  return JsonParser(text).Document(value, error);
}

}  // namespace clitest
