#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace Engine {

// The frames a syslog sink has accepted and not yet sent, oldest first, bounded in bytes: at the
// bound the oldest are dropped (and counted), never the one whose first bytes are already out.
//
// Without a file they are kept in memory. With a file, frames that do not go out at once are
// appended to it and read back through a window of kSpoolWindowBytes, so memory does not grow with
// the bound. What was sent is recorded as the file offset of the first frame not yet sent, in
// "<file>.offset", written and fsync'd after each batch of sends (Persist). A small fsync'd record
// rather than rewriting the spool after each batch: its cost does not grow with the backlog, and a
// crash at any point leaves either the old or the new offset. Only the frames of the batch whose
// offset was not yet fsync'd when the agent died are sent again. The file is emptied once every
// frame in it was sent, and rewritten (fsync, rename, fsync of the folder) without the sent part
// once that part exceeds the bound; the record names the file's inode, so a record left from
// before such a rewrite is recognised and the new file is sent from its start.
class SyslogSpool {
public:
    // `path` "": memory only.
    SyslogSpool(std::string path, std::size_t maxBytes);
    ~SyslogSpool();
    SyslogSpool(const SyslogSpool&) = delete;
    SyslogSpool& operator=(const SyslogSpool&) = delete;

    // Opens the file and its offset record, finds the frames not yet sent and drops a torn last
    // frame (with a warning). False with `error` filled when the file cannot be opened.
    bool Open(std::string& error);

    void Push(std::string frame);
    bool Empty() const;
    // Frames and bytes waiting.
    std::size_t Size() const;
    std::size_t Bytes() const;
    // The oldest frame; not to be called when Empty.
    const std::string& Front();
    // Bytes of the front already handed to the kernel (a stream takes part of a frame).
    std::size_t FrontSent() const { return m_frontSent; }
    void AddFrontSent(std::size_t bytes) { m_frontSent += bytes; }
    // The connection was lost: the front goes out whole on the next one.
    void ResetFront() { m_frontSent = 0; }
    // The front was sent or cannot be sent at all.
    void PopFront();

    // Records what was sent (fsync'd), then appends the frames not yet in the file; appends are
    // fsync'd at most every kSpoolSyncMs, and always when `stopping`. `stopping` also rewrites a
    // file that starts with sent frames, when what is left is small enough to copy at once. False,
    // errno set, when the file cannot be written; frames stay in memory and the next call tries again.
    bool Persist(bool stopping = false);
    // When appended frames are due for their fsync (time_point::max when none wait).
    std::chrono::steady_clock::time_point SyncDue() const;

    // Frames dropped at the bound since the last call.
    std::size_t TakeDropped();

private:
    struct Frame {
        std::uint64_t offset;
        std::string data;
    };

    bool HasFile() const { return m_fd >= 0; }
    // Length of the frame that starts at `offset` of the file; 0 when none is there.
    std::size_t FrameLengthAt(std::uint64_t offset);
    void Refill();
    // The file from m_readAt on cannot be read as frames: given up with one error line.
    void GiveUpUnread(const char* why);
    bool DropOldest();
    void Bound();
    void UpdateHead();
    bool WriteRecord(std::uint64_t offset);
    bool Compact();
    bool AppendTail();

    std::string m_path;
    std::string m_recordPath;
    std::size_t m_maxBytes;
    int m_fd = -1;
    int m_recordFd = -1;
    ino_t m_inode = 0;
    std::uint64_t m_fileSize = 0;
    std::uint64_t m_head = 0;                 // first frame of the file not yet sent
    std::uint64_t m_headSynced = UINT64_MAX;  // what the record says
    std::uint64_t m_readAt = 0;               // the file from here on is not in the window yet
    std::size_t m_unreadCount = 0;
    std::deque<Frame> m_window;
    std::size_t m_windowBytes = 0;
    std::deque<std::string> m_tail;  // not in the file
    std::size_t m_tailBytes = 0;
    std::size_t m_frontSent = 0;
    std::size_t m_dropped = 0;
    std::optional<std::chrono::steady_clock::time_point> m_unsyncedSince;
};

}  // namespace Engine
