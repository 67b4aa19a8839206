// The store's image files: their names, writing, and flushing them to disk. Included by the
// store's own files only.
#pragma once

#include <fcntl.h>

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "server/store/sqlite/sqlite_store.h"

namespace saffra::server {

namespace fs = std::filesystem;

namespace storage {

// Writes `bytes` to a new file at `path`. Throws StoreError, leaving no file behind.
void writeFile(const fs::path& path, std::span<const std::uint8_t> bytes);
// Flushes a file or folder to disk: empty when done (or when it is gone: nothing of it is
// left to lose), else why not.
std::string flushToDisk(const fs::path& path, int flags);

}  // namespace storage

// Stored image files, flushed to disk in the order they were stored, then their folders (which
// hold their names) and the folders above those (which may have gained the folders). A file
// whose flush failed stays a failure for every later flushImages(): a disk that loses writes is
// not trusted with a baseline.
class SqliteStore::Flusher {
 public:
  Flusher() : thread_([this] { run(); }) {}
  ~Flusher() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    added_.notify_all();
    thread_.join();
  }
  Flusher(const Flusher&) = delete;
  Flusher& operator=(const Flusher&) = delete;

  void add(fs::path file) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(file));
      ++count_;
    }
    added_.notify_one();
  }

  void flush() {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = count_;
    flushed_.wait(lock, [&] { return done_ >= target; });
    if (!failure_.empty()) throw StoreError("cannot flush " + failure_);
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      added_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and all is flushed
      std::vector<fs::path> files = std::exchange(queue_, {});
      const std::uint64_t upTo = count_;
      lock.unlock();
      std::string failure;
      std::vector<fs::path> folders;
      const auto addFolder = [&](const fs::path& folder) {
        if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
          folders.push_back(folder);
        }
      };
      for (const fs::path& file : files) {
        if (std::string why = storage::flushToDisk(file, O_RDONLY); !why.empty()) failure = why;
        addFolder(file.parent_path());
        addFolder(file.parent_path().parent_path());  // which may have gained the folder
      }
      for (const fs::path& folder : folders) {
        if (std::string why = storage::flushToDisk(folder, O_RDONLY | O_DIRECTORY); !why.empty()) {
          failure = why;
        }
      }
      lock.lock();
      if (failure_.empty()) failure_ = failure;
      done_ = upTo;
      flushed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable added_, flushed_;
  std::vector<fs::path> queue_;
  std::uint64_t count_ = 0;  // files added so far
  std::uint64_t done_ = 0;   // of those, the ones flushed (or given up on)
  std::string failure_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace saffra::server
