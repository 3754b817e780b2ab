// The configuration tree of the gateway, kept in one text file:
//
//   [Node]
//   Attribute=value
//
// Values are escaped so that each stays on one line (\\, \n, \r). Lines that
// are neither a node header nor an attribute are ignored, so a damaged tree
// still reads as far as it makes sense. Writers serialise on a lock file and
// rename a complete new file into place.
#include "tcapi.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace {

constexpr int kHookSeconds = 30;  // how long a commit hook may run

int64_t MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Node {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attrs;
};

bool ValidName(const char* name) {
  if (name == nullptr || *name == '\0') return false;
  for (const char* p = name; *p; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c <= ' ' || c == 0x7f || c == '[' || c == ']' || c == '=' || c == '/') return false;
  }
  return true;
}

std::string Escape(const char* value) {
  std::string out;
  for (const char* p = value; *p; ++p) {
    switch (*p) {
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += *p;
    }
  }
  return out;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      char c = text[++i];
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    } else {
      out += text[i];
    }
  }
  return out;
}

// Reads the whole tree; a missing file is an empty tree.
std::vector<Node> ReadTree() {
  std::vector<Node> tree;
  FILE* f = fopen(TCAPI_TREE_PATH, "re");
  if (f == nullptr) return tree;
  std::string line;
  int c;
  Node* current = nullptr;
  do {
    c = fgetc(f);
    if (c != '\n' && c != EOF) {
      line += static_cast<char>(c);
      continue;
    }
    if (line.size() > 2 && line.front() == '[' && line.back() == ']') {
      tree.push_back(Node{line.substr(1, line.size() - 2), {}});
      current = &tree.back();
    } else if (current != nullptr) {
      size_t eq = line.find('=');
      if (eq != std::string::npos && eq > 0) {
        current->attrs.emplace_back(line.substr(0, eq), Unescape(line.substr(eq + 1)));
      }
    }
    line.clear();
  } while (c != EOF);
  fclose(f);
  return tree;
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteTree(const std::vector<Node>& tree) {
  std::string text;
  for (const Node& node : tree) {
    text += "[" + node.name + "]\n";
    for (const auto& attr : node.attrs)
      text += attr.first + "=" + Escape(attr.second.c_str()) + "\n";
  }
  // Made anew under the writers' lock, never through a link at its name, and
  // readable by its owner alone: the tree holds the management credentials.
  // Not synced: this is the running tree, which a gateway keeps in memory;
  // the rename alone lets no reader see half of it.
  const char* tmp = TCAPI_TREE_PATH ".tmp";
  unlink(tmp);
  int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text);
  ok = close(fd) == 0 && ok;
  if (ok && rename(tmp, TCAPI_TREE_PATH) == 0) return true;
  unlink(tmp);
  return false;
}

// Holds the writers' lock of the tree for its lifetime.
class TreeLock {
 public:
  TreeLock() : fd_(open(TCAPI_LOCK_PATH, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (fd_ >= 0) {
      while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  ~TreeLock() {
    if (fd_ >= 0) close(fd_);
  }
  TreeLock(const TreeLock&) = delete;
  TreeLock& operator=(const TreeLock&) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_;
};

// Removes every attribute named `name`; true when there was one.
bool EraseAttr(std::vector<std::pair<std::string, std::string>>& attrs, const char* name) {
  size_t before = attrs.size();
  attrs.erase(std::remove_if(attrs.begin(), attrs.end(),
                             [name](const std::pair<std::string, std::string>& a) {
                               return a.first == name;
                             }),
              attrs.end());
  return attrs.size() != before;
}

Node* FindNode(std::vector<Node>& tree, const char* name) {
  for (Node& node : tree) {
    if (node.name == name) return &node;
  }
  return nullptr;
}

}  // namespace

extern "C" int tcapi_nget(const char* node, const char* attr, char* buf, size_t size) {
  if (buf == nullptr || size == 0) return -1;
  buf[0] = '\0';
  if (!ValidName(node) || !ValidName(attr)) return -1;
  std::vector<Node> tree = ReadTree();
  Node* found = FindNode(tree, node);
  if (found == nullptr) return -1;
  for (const auto& a : found->attrs) {
    if (a.first == attr) {
      size_t n = a.second.size() < size - 1 ? a.second.size() : size - 1;
      memcpy(buf, a.second.data(), n);
      buf[n] = '\0';
      return 0;
    }
  }
  return -1;
}

extern "C" int tcapi_set(const char* node, const char* attr, const char* value) {
  if (!ValidName(node) || !ValidName(attr) || value == nullptr) return -1;
  TreeLock lock;
  if (!lock.held()) return -1;
  std::vector<Node> tree = ReadTree();
  Node* found = FindNode(tree, node);
  if (found == nullptr) {
    tree.push_back(Node{node, {}});
    found = &tree.back();
  }
  bool replaced = false;
  for (auto& a : found->attrs) {
    if (a.first == attr) {
      a.second = value;
      replaced = true;
    }
  }
  if (!replaced) found->attrs.emplace_back(attr, value);
  return WriteTree(tree) ? 0 : -1;
}

extern "C" int tcapi_unset(const char* node, const char* attr) {
  if (!ValidName(node) || (attr != nullptr && !ValidName(attr))) return -1;
  TreeLock lock;
  if (!lock.held()) return -1;
  std::vector<Node> tree = ReadTree();
  // A damaged tree may name a node or an attribute twice: every copy goes,
  // so that nothing of it reads back afterwards.
  bool removed = false;
  for (size_t i = tree.size(); i-- > 0;) {
    if (tree[i].name != node) continue;
    if (attr == nullptr) {
      tree.erase(tree.begin() + static_cast<long>(i));
      removed = true;
    } else {
      removed = EraseAttr(tree[i].attrs, attr) || removed;
    }
  }
  if (!removed) return -1;
  return WriteTree(tree) ? 0 : -1;
}

extern "C" int tcapi_take(const char* node, const char* attr, char* buf, size_t size) {
  if (buf == nullptr || size == 0) return -1;
  buf[0] = '\0';
  if (!ValidName(node) || !ValidName(attr)) return -1;
  TreeLock lock;
  if (!lock.held()) return -1;
  std::vector<Node> tree = ReadTree();
  Node* found = FindNode(tree, node);
  if (found == nullptr) return -1;
  auto& attrs = found->attrs;
  for (size_t i = 0; i < attrs.size(); ++i) {
    if (attrs[i].first != attr) continue;
    snprintf(buf, size, "%s", attrs[i].second.c_str());
    EraseAttr(attrs, attr);  // with its copies in a damaged tree: taken once
    return WriteTree(tree) ? 0 : -1;
  }
  return -1;
}

extern "C" int tcapi_commit(const char* node) {
  if (!ValidName(node)) return -1;
  std::string hook = std::string(TCAPI_HOOK_DIR) + "/" + node;
  if (access(hook.c_str(), X_OK) != 0) return 0;
  char* argv[] = {const_cast<char*>(hook.c_str()), const_cast<char*>(node), nullptr};
  // The hook starts with every signal unblocked and at its default, whatever
  // the calling thread blocks or catches, in a process group of its own.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  pid_t pid;
  int rc = posix_spawn(&pid, hook.c_str(), nullptr, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) return -1;
  // A hook that does not end would hold its caller for good: at the deadline
  // its group goes (what it leaves running after a normal end stays). Checked
  // at growing intervals, up to 100 ms.
  const int64_t deadline = MonotonicMs() + kHookSeconds * 1000;
  int status = 0;
  for (int check = 1;; check = std::min(check * 2, 100)) {
    pid_t got = waitpid(pid, &status, WNOHANG);
    if (got == pid) break;
    if (got < 0 && errno != EINTR) return -1;
    if (MonotonicMs() >= deadline) {
      kill(-pid, SIGKILL);
      tcdbg_printf("tcapi_commit: \"%s\" still running after %d s, stopped\n", hook.c_str(),
                   kHookSeconds);
      waitpid(pid, &status, 0);
      return -1;
    }
    poll(nullptr, 0, check);
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

extern "C" int tcdbg_printf(const char* format, ...) {
  char small[1024];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(small, sizeof small, format, ap);
  va_end(ap);
  if (n < 0) return n;
  std::string big;
  const char* text = small;
  if (static_cast<size_t>(n) >= sizeof small) {
    big.resize(static_cast<size_t>(n) + 1);
    va_start(ap, format);
    vsnprintf(&big[0], big.size(), format, ap);
    va_end(ap);
    text = big.c_str();
  }
  size_t done = 0;
  while (done < static_cast<size_t>(n)) {
    ssize_t w = write(STDERR_FILENO, text + done, static_cast<size_t>(n) - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
  return n;
}
