// The standard input of the test process taken from a file for the life of the object, for
// inputs that read "-"; the old standard input comes back at the end.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace test_support {

class StdinFromFile {
 public:
  explicit StdinFromFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return;
    saved_ = dup(0);
    ok_ = saved_ >= 0 && dup2(fd, 0) == 0;
    close(fd);
    std::clearerr(stdin);
  }
  ~StdinFromFile() {
    if (saved_ < 0) return;
    dup2(saved_, 0);
    close(saved_);
    std::clearerr(stdin);
  }
  StdinFromFile(const StdinFromFile&) = delete;
  StdinFromFile& operator=(const StdinFromFile&) = delete;
  bool ok() const { return ok_; }

 private:
  int saved_ = -1;
  bool ok_ = false;
};

}  // namespace test_support
