// trovalis mklsr: writes the ls-R database of a TeX tree.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli.h"

namespace cli {
namespace {

constexpr const char *kUsage =
    "Usage: trovalis mklsr [--no-reset] [-q] DIR...\n"
    "Write DIR/ls-R, the file database of the tree DIR, for each DIR: a comment\n"
    "line, then one block per directory (\"./:\" for the top, \"./sub/dir:\" below)\n"
    "listing its files. Directories whose name begins with '.' are left out;\n"
    "symbolic links are followed. The file is written beside the old one and\n"
    "renamed over it, so that a reader never sees half a database. Afterwards\n"
    "the running cache is told to reload (as 'trovalis reset') unless\n"
    "--no-reset is given. On a terminal, progress is shown unless -q.\n";

constexpr const char *kHeader = "% ls-R -- filename database for trovalis.\n";

// Progress on stderr, at most ten times a second.
class Progress {
 public:
  Progress(const std::string &tree, bool on) : tree_(tree), on_(on) {}
  void update(long dirs, long files) {
    if (!on_) return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long ms = now.tv_sec * 1000 + now.tv_nsec / 1000000;
    if (ms - last_ms_ < 100) return;
    last_ms_ = ms;
    std::fprintf(stderr, "\rtrovalis mklsr: %s: %ld directories, %ld files", tree_.c_str(), dirs,
                 files);
    shown_ = true;
  }
  void done() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }

 private:
  std::string tree_;
  bool on_;
  bool shown_ = false;
  long last_ms_ = 0;
};

// One tree's walk: directories depth first in name order, each block
// written as soon as the directory has been read.
class Indexer {
 public:
  Indexer(std::FILE *out, Progress &progress) : out_(out), progress_(progress) {}

  // Walks `path` (shown in the database as `rel`). False on a write error.
  bool walk(const std::string &path, const std::string &rel) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
      warn(path);
      return true;
    }
    // A link back up the tree would make the walk endless.
    if (!visited_.insert({st.st_dev, st.st_ino}).second) return true;

    DIR *d = opendir(path.c_str());
    if (d == nullptr) {
      warn(path);
      return true;
    }
    std::vector<std::string> files, subdirs;
    errno = 0;
    while (dirent *e = readdir(d)) {
      const char *name = e->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      bool is_dir = false;
#ifdef DT_DIR
      if (e->d_type == DT_DIR) {
        is_dir = true;
      } else if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
        struct stat est {};
        is_dir = stat((path + "/" + name).c_str(), &est) == 0 && S_ISDIR(est.st_mode);
      }
#else
      struct stat est {};
      is_dir = stat((path + "/" + name).c_str(), &est) == 0 && S_ISDIR(est.st_mode);
#endif
      if (is_dir) {
        if (name[0] != '.') subdirs.emplace_back(name);
      } else if (!rel.empty() || (std::strcmp(name, "ls-R") != 0 &&
                                  std::strncmp(name, ".ls-R.", 6) != 0)) {
        // The database itself and its temporary file are not part of it.
        files.emplace_back(name);
      }
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    std::sort(subdirs.begin(), subdirs.end());

    ++dirs_;
    files_ += static_cast<long>(files.size());
    progress_.update(dirs_, files_);
    if (std::fprintf(out_, "\n./%s:\n", rel.c_str()) < 0) return false;
    for (const std::string &f : files)
      if (std::fprintf(out_, "%s\n", f.c_str()) < 0) return false;
    for (const std::string &s : subdirs)
      if (!walk(path + "/" + s, rel.empty() ? s : rel + "/" + s)) return false;
    return true;
  }

  long dirs() const { return dirs_; }
  long files() const { return files_; }

 private:
  static void warn(const std::string &path) {
    std::fprintf(stderr, "trovalis mklsr: %s: %s (left out)\n", path.c_str(), std::strerror(errno));
  }

  std::FILE *out_;
  Progress &progress_;
  std::set<std::pair<dev_t, ino_t>> visited_;
  long dirs_ = 0, files_ = 0;
};

// Writes tree/ls-R through a temporary file renamed into place.
bool index_tree(const std::string &tree, bool show_progress) {
  struct stat st {};
  if (stat(tree.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "trovalis mklsr: %s: not a directory\n", tree.c_str());
    return false;
  }
  std::string tmp = tree + "/.ls-R.XXXXXX";
  const int fd = mkstemp(tmp.data());
  if (fd < 0) {
    std::fprintf(stderr, "trovalis mklsr: cannot write in %s: %s\n", tree.c_str(),
                 std::strerror(errno));
    return false;
  }
  // Readable by every program of the installation, like the tree itself.
  fchmod(fd, 0644);
  std::FILE *out = fdopen(fd, "w");
  if (out == nullptr) {
    close(fd);
    unlink(tmp.c_str());
    return false;
  }
  Progress progress(tree, show_progress);
  Indexer indexer(out, progress);
  bool ok = std::fputs(kHeader, out) >= 0 && indexer.walk(tree, "");
  ok = std::fflush(out) == 0 && ok;
  ok = fsync(fileno(out)) == 0 && ok;
  ok = std::fclose(out) == 0 && ok;
  progress.done();
  const std::string target = tree + "/ls-R";
  if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
    std::fprintf(stderr, "trovalis mklsr: cannot write %s: %s\n", target.c_str(),
                 std::strerror(errno));
    unlink(tmp.c_str());
    return false;
  }
  std::printf("%s: %ld directories, %ld files\n", target.c_str(), indexer.dirs(), indexer.files());
  return true;
}

}  // namespace

int cmd_mklsr(int argc, char **argv) {
  bool reset = true, quiet = false;
  std::vector<std::string> trees;
  for (int i = 0; i < argc; ++i) {
    const char *a = argv[i];
    if (is_help(a)) {
      std::fputs(kUsage, stdout);
      return kExitOk;
    }
    if (std::strcmp(a, "--no-reset") == 0) {
      reset = false;
    } else if (std::strcmp(a, "-q") == 0 || std::strcmp(a, "--quiet") == 0) {
      quiet = true;
    } else if (a[0] == '-' && a[1] != '\0') {
      return usage_error(kUsage, (std::string("unknown option '") + a + "'").c_str());
    } else {
      std::string t = a;
      while (t.size() > 1 && t.back() == '/') t.pop_back();
      trees.push_back(t);
    }
  }
  if (trees.empty()) return usage_error(kUsage, "at least one DIR is required");

  bool ok = true;
  for (const std::string &t : trees) ok = index_tree(t, !quiet && isatty(STDERR_FILENO)) && ok;
  if (reset && !reset_running_cache())
    std::fprintf(stderr, "trovalis mklsr: the cache was not reset; run 'trovalis reset'\n");
  return ok ? kExitOk : kExitNotFound;
}

}  // namespace cli
