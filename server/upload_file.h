// An uploaded screenshot's file on its way into the store. The upload's id (the hash of its
// bytes, which names its file) and, for a step recorded whatever its verdict, the file written
// under a temporary name are made on a storage thread while the handler decodes and compares
// the upload, so that the hashing and the writing add little to the client's wait.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "server/compare/task_pool.h"
#include "server/store.h"

namespace saffra::server {

/// One upload's file: hashed, perhaps written ahead, then kept or dropped.
class UploadFile {
 public:
  /// `bytes` must outlive this object. `id` is the upload's id when the caller has it already;
  /// with `writeAhead` the file is written before it is known to be kept.
  UploadFile(std::span<const std::uint8_t> bytes, std::optional<std::string> id, bool writeAhead);
  /// Waits for work started on a storage thread; a file written ahead and not kept is removed.
  ~UploadFile();
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  /// Starts the hashing (and the writing ahead) on one of `pool`'s threads. Without a thread
  /// to spare, or when the thread has not started by the time keep() is called, keep() does
  /// the work itself.
  void prepareOn(compare::TaskPool& pool, Store& store);

  /// Stores the file (the one written ahead, else written now) and returns its id. Throws
  /// StoreError when it cannot be written.
  std::string keep(Store& store);

 private:
  void prepare(Store& store);

  std::span<const std::uint8_t> bytes_;
  std::optional<std::string> id_;
  bool writeAhead_;
  std::unique_ptr<Store::PendingImage> pending_;
  std::shared_ptr<compare::TaskPool::Task> task_;
};

}  // namespace saffra::server
