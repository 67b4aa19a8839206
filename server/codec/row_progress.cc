#include "server/codec/row_progress.h"

#include <algorithm>

namespace saffra::png {

void RowProgress::begin(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                        std::vector<std::uint8_t> sameRows, bool inBands) {
  {
    std::lock_guard lock(mutex_);
    rgba_ = rgba, width_ = width, height_ = height;
    sameRows_ = std::move(sameRows);
    inBands_ = inBands;
    started_ = true;
  }
  changed_.notify_all();
}

void RowProgress::publish(std::size_t rows) {
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    rows_ = std::max(rows_, rows);
    wake = rows_ >= wanted_;
  }
  if (wake) changed_.notify_all();
}

void RowProgress::fail() {
  {
    std::lock_guard lock(mutex_);
    failed_ = true;
  }
  changed_.notify_all();
}

bool RowProgress::complete() {
  std::lock_guard lock(mutex_);
  return started_ && !failed_ && rows_ >= height_;
}

bool RowProgress::waitForStart() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return started_ || failed_; });
  return started_ && !failed_;
}

bool RowProgress::waitForRows(std::size_t rows) {
  std::unique_lock lock(mutex_);
  while (rows_ < rows && !failed_) {
    wanted_ = std::min(wanted_, rows);
    changed_.wait(lock);
    wanted_ = SIZE_MAX;  // a reader still short of its rows sets it again
  }
  return rows_ >= rows;
}

std::size_t RowProgress::rows() {
  std::lock_guard lock(mutex_);
  return failed_ ? 0 : rows_;
}

}  // namespace saffra::png
