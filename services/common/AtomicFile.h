#pragma once

#include <sys/types.h>

#include <string>

namespace orv::services {

// The file-system calls a crash-safe replacement of a file is made of. The
// real implementation calls the kernel; tests derive from it to stop the
// sequence at any call, as a failing disk or a power cut would. Every call
// returns what the system call returns (-1 with errno on failure).
class FileSystem
{
public:
    virtual ~FileSystem() = default;

    virtual int openFile(const std::string& path, int flags, mode_t mode);
    virtual ssize_t writeSome(int fd, const char* data, std::size_t size);
    virtual int syncFile(int fd);
    virtual int closeFile(int fd);
    virtual int renameFile(const std::string& from, const std::string& to);
    virtual int removeFile(const std::string& path);
};

// The kernel's file system, for the daemons.
FileSystem& systemFileSystem();

// What became of one atomic write.
struct AtomicWrite
{
    // The new content is at the path. Also true when only the closing sync of
    // the directory failed: the file is in place, but a power cut may still
    // bring the old one back.
    bool replaced = false;
    int error = 0;     // errno of the step that failed, 0 when every step succeeded
    std::string step;  // the step that failed, for the log ("write", "rename", ...)
};

// Replaces the file at path by content so that a reader, or the same path
// after a crash at any moment, finds either the old file or the new one,
// never a mixture: the content goes to "<path>.tmp", which is synced, closed
// and renamed over path, and then the directory is synced so that the rename
// itself survives a power cut. Before the rename every failure removes the
// temporary file and leaves the old file as it was. mode: of the new file.
AtomicWrite writeFileAtomically(FileSystem& fs, const std::string& path, const std::string& content,
                                mode_t mode = 0644);

}  // namespace orv::services
