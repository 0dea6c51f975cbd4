#include "ConfigText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vela {

bool splitConfigLines(std::string_view text, std::vector<ConfigLine>& out, std::string& error)
{
    out.clear();
    int number = 0;
    std::size_t pos = 0;
    while (pos < text.size()) {
        ++number;
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        const std::size_t hash = line.find('#');
        if (hash != std::string_view::npos) {
            line = line.substr(0, hash);
        }
        ConfigLine entry;
        entry.number = number;
        std::string word;
        for (char ch : line) {
            const auto c = static_cast<unsigned char>(ch);
            if (c == ' ' || c == '\t' || c == '\r') {
                // A carriage return is taken as a blank, so that a file
                // edited with CR LF line ends reads the same.
                if (!word.empty()) {
                    entry.words.push_back(std::move(word));
                    word.clear();
                }
            } else if (c < 0x20 || c == 0x7f) {
                error = "line " + std::to_string(number) + ": control character in the text";
                return false;
            } else {
                word += ch;
            }
        }
        if (!word.empty()) {
            entry.words.push_back(std::move(word));
        }
        if (!entry.words.empty()) {
            out.push_back(std::move(entry));
        }
    }
    return true;
}

int readConfigFile(const std::string& path, std::string& text)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return -errno;
    }
    struct stat st;
    if (::fstat(fd, &st) < 0) {
        int err = -errno;
        ::close(fd);
        return err;
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return -EINVAL;
    }
    text.clear();
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            int err = -errno;
            ::close(fd);
            return err;
        }
        if (n == 0) {
            break;
        }
        if (text.size() + static_cast<std::size_t>(n) > kMaxConfigFileSize) {
            ::close(fd);
            return -EFBIG;
        }
        text.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return 0;
}

bool loadConfigFile(const std::string& path, bool mayBeMissing,
                    const std::function<bool(std::string_view text, std::string& error)>& parse,
                    std::string& error)
{
    std::string text;
    const int rc = readConfigFile(path, text);
    if (rc == -ENOENT && mayBeMissing) {
        return true;
    }
    if (rc < 0) {
        error = path + ": " + (rc == -EFBIG ? "larger than 1 MiB" : std::strerror(-rc));
        return false;
    }
    if (!parse(text, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

}  // namespace vela
