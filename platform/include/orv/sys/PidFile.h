#pragma once

#include <string>

namespace orv::sys {

// Writes the process id to /run/<base name of argv0>.pid and holds an
// exclusive lock (flock) on it for the life of the object, so that a second
// live instance of the same program is refused while a stale file left by a
// crashed one is simply taken over. The destructor removes the file.
class PidFile
{
public:
    // Throws orv::exception::exception when another live process holds the
    // file (the message names the file and that process's id) or when the file
    // cannot be created (the message names the file and the system error).
    explicit PidFile(const std::string& argv0);
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    const std::string& path() const { return m_path; }

    // The file name used for a program path: "/run/" + base name + ".pid".
    static std::string pathFor(const std::string& argv0);

private:
    std::string m_path;
    int m_fd = -1;
    int m_owner = 0;  // pid of the process that wrote the file
};

}  // namespace orv::sys
