#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cleansed.h"
#include "zol_libcrypto.h"

namespace zol_libcrypto {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0)
      close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::string failure(const std::string& path, const char* what) {
  return std::string(what) + " key file " + path + ": " + std::strerror(errno);
}

std::string octal(mode_t mode) {
  std::string digits(4, '0');
  for (std::size_t i = 4; i-- > 0; mode >>= 3)
    digits[i] = static_cast<char>('0' + (mode & 7));
  return digits;
}

bool is_private_file(int fd, const std::string& path, std::string& error) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    error = failure(path, "can't read");
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "key file " + path + " is no regular file";
    return false;
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    error = "key file " + path + " is open to group or others (mode " + octal(status.st_mode & 0777) +
            "), it must have mode 0600";
    return false;
  }
  return true;
}

bool write_whole(int fd, const std::string& bytes) {
  ssize_t size = 0;
  do
    size = write(fd, bytes.data(), bytes.size());
  while (size < 0 && errno == EINTR);
  if (size >= 0 && static_cast<std::size_t>(size) != bytes.size())
    errno = ENOSPC;
  return size == static_cast<ssize_t>(bytes.size()) && fsync(fd) == 0;
}

}  // namespace

std::optional<std::string> read_key_file(const std::string& path, std::string& error) {
  // A FIFO under this name must not hold up the caller.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.get() < 0) {
    error = failure(path, "can't open");
    return std::nullopt;
  }
  if (!is_private_file(file.get(), path, error))
    return std::nullopt;
  std::string bytes(key_size + 1, '\0');  // one more shows a file that is too long
  const Cleansed wiped(bytes);
  const ssize_t size = read(file.get(), bytes.data(), bytes.size());
  if (size < 0) {
    error = failure(path, "can't read");
    return std::nullopt;
  }
  if (size != static_cast<ssize_t>(key_size)) {
    error = "key file " + path + " does not hold exactly " + std::to_string(key_size) + " bytes";
    return std::nullopt;
  }
  return bytes.substr(0, key_size);
}

bool make_key_file(const std::string& path, std::string& error) {
  std::string key(key_size, '\0');
  const Cleansed wiped(key);
  if (RAND_priv_bytes(reinterpret_cast<unsigned char*>(key.data()), key_size) != 1) {
    error = "no random bytes to be had";
    return false;
  }
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (file.get() < 0) {
    error = failure(path, "can't make");
    return false;
  }
  if (!write_whole(file.get(), key)) {
    error = failure(path, "can't write");
    unlink(path.c_str());
    return false;
  }
  return true;
}

}  // namespace zol_libcrypto
