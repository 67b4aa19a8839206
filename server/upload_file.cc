#include "server/upload_file.h"

#include <utility>

namespace saffra::server {

UploadFile::UploadFile(std::span<const std::uint8_t> bytes, std::optional<std::string> id,
                       bool writeAhead)
    : bytes_(bytes), id_(std::move(id)), writeAhead_(writeAhead) {}

void UploadFile::prepare(Store& store) noexcept {
  try {
    if (!id_) id_ = Store::imageIdOf(bytes_);
    if (writeAhead_ && !store.hasImage(*id_, bytes_.size())) {
      pending_ = store.writeImage(bytes_, *id_);
    }
  } catch (...) {
    failure_ = std::current_exception();
  }
}

std::string UploadFile::keep(Store& store) {
  if (failure_) std::rethrow_exception(failure_);
  if (!id_) id_ = Store::imageIdOf(bytes_);
  if (pending_) return pending_->keep();
  return store.putImage(bytes_, *id_);
}

}  // namespace saffra::server
