// An uploaded screenshot's file on its way into the store. The upload's id (the hash of its
// bytes, which names its file) and, for a step recorded whatever its verdict, the file written
// under a temporary name are made by the request's thread while a helper decodes the upload
// beside it (see PixelPool::decode), so that the hashing and the writing add little to the
// client's wait: a thread of their own would share the two decoding threads' cores with them
// and finish after them.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "server/store.h"

namespace saffra::server {

/// One upload's file: hashed, perhaps written ahead, then kept or dropped.
class UploadFile {
 public:
  /// `bytes` must outlive this object. `id` is the upload's id when the caller has it already;
  /// with `writeAhead` the file is written before it is known to be kept.
  UploadFile(std::span<const std::uint8_t> bytes, std::optional<std::string> id, bool writeAhead);
  /// A file written ahead and not kept is removed.
  ~UploadFile() = default;
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  /// Hashes the upload and writes it ahead; called at most once. A failure to write is kept
  /// for keep() to report.
  void prepare(Store& store) noexcept;

  /// Stores the file (the one written ahead, else written now) and returns its id. Throws
  /// StoreError when it cannot be written.
  std::string keep(Store& store);

 private:
  std::span<const std::uint8_t> bytes_;
  std::optional<std::string> id_;
  bool writeAhead_;
  std::unique_ptr<Store::PendingImage> pending_;
  std::exception_ptr failure_;
};

}  // namespace saffra::server
