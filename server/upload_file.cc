#include "server/upload_file.h"

#include <system_error>
#include <utility>

namespace saffra::server {

UploadFile::UploadFile(std::span<const std::uint8_t> bytes, std::optional<std::string> id,
                       bool writeAhead)
    : bytes_(bytes), id_(std::move(id)), writeAhead_(writeAhead) {}

UploadFile::~UploadFile() {
  if (!task_) return;
  try {
    task_->finish();
  } catch (...) {
    // A file that could not be written ahead and is not kept is not missed.
  }
}

void UploadFile::prepareOn(compare::TaskPool& pool, Store& store) {
  try {
    task_ = pool.post([this, &store] { prepare(store); });
  } catch (const std::system_error&) {
    // No thread to spare: keep() hashes and writes.
  }
}

void UploadFile::prepare(Store& store) {
  if (!id_) id_ = Store::imageIdOf(bytes_);
  if (writeAhead_ && !store.hasImage(*id_, bytes_.size()))
    pending_ = store.writeImage(bytes_, *id_);
}

std::string UploadFile::keep(Store& store) {
  if (std::shared_ptr<compare::TaskPool::Task> task = std::exchange(task_, nullptr)) {
    task->finish();  // withdrawn when it has not started; rethrows a failure to write
  }
  if (!id_) id_ = Store::imageIdOf(bytes_);
  if (pending_) return pending_->keep();
  return store.putImage(bytes_, *id_);
}

}  // namespace saffra::server
