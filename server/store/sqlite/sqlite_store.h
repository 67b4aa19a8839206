// The SQLite engine: one database file (WAL) in the data folder and a folder of PNG files named
// by the SHA-256 of their bytes. Every path it touches is made from its own folder and such a
// hash, never from request data. Image files are written to a temporary name and renamed, so a
// crash never leaves a partial image behind. Included by the store's own files only.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <sqlite3.h>

#include "server/store/sql_store.h"

namespace saffra::server {

class SqliteStore : public SqlStore {
 public:
  /// Opens (creating when needed) the store in `folder`. Throws StoreError.
  explicit SqliteStore(const std::filesystem::path& folder);
  ~SqliteStore() override;

  using Store::putImage;
  std::string putImage(std::span<const std::uint8_t> png, const std::string& id) override;
  bool hasImage(const std::string& id, std::uint64_t size) const override;
  std::optional<std::uint64_t> imageSize(const std::string& id) const override;
  std::unique_ptr<PendingImage> writeImage(std::span<const std::uint8_t> png,
                                           const std::string& id) override;
  std::optional<std::vector<std::uint8_t>> readImage(const std::string& id) const override;
  std::optional<std::vector<std::uint8_t>> imageHead(const std::string& id,
                                                     std::size_t count) const override;
  void flushImages() override;
  std::int64_t removeUnusedImages(const std::string& prefix, std::int64_t before) override;

 protected:
  storage::Lease lease() override;
  /// Throws StoreUnavailable when the folder, the image folder or the database file is no
  /// longer the one opened.
  void requireWritable() const override;
  const char* schemaTable() const override { return "schema_version"; }

 private:
  /// An upload's file under a temporary name in the image folder.
  class PendingFile : public PendingImage {
   public:
    ~PendingFile() override;
    std::string keep() override;

   private:
    friend class SqliteStore;
    PendingFile(SqliteStore& store, std::filesystem::path temporary, std::filesystem::path path,
                std::string id);
    SqliteStore& store_;
    std::filesystem::path temporary_, path_;
    std::string id_;
    bool kept_ = false;
  };
  /// The thread that flushes stored image files to disk (defined in image_files.h).
  class Flusher;
  class Connection;

  std::filesystem::path imagePath(const std::string& id) const;
  /// Brings a database made by an earlier version up to the current schema.
  void migrate();
  /// Adds the columns that the first schema gained during its life.
  void migrateFirstSchema();

  std::filesystem::path folder_;
  std::filesystem::path imageFolder_;
  std::unique_ptr<Flusher> flusher_;
  /// One connection, used by one operation at a time.
  mutable std::mutex mutex_;
  /// Held while an image file is checked for use and removed, and while a file about to be
  /// referred to is found present and touched, so retention never removes a file in use.
  mutable std::mutex imageUseMutex_;
  sqlite3* db_ = nullptr;
  std::unique_ptr<Connection> connection_;
  /// Device and inode of the folder, the image folder and the database file when opened.
  std::array<std::pair<std::uint64_t, std::uint64_t>, 3> identity_{};
  mutable std::atomic<bool> lost_{false};
};

}  // namespace saffra::server
