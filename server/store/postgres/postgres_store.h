// The PostgreSQL engine: every row and every image's bytes in one database that several
// instances of the service share, through a pool of libpq connections. Included by the store's
// own files only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/store/sql_store.h"

namespace saffra::server {

class PostgresStore : public SqlStore {
 public:
  /// Connects to the database at `address` ("postgresql://..."), creating or upgrading its
  /// schema. Throws StoreAddressError for a malformed address, StoreUnavailable when the
  /// database cannot be reached or refuses the login, StoreError for a database that is newer
  /// than this program or holds tables of another one (left untouched).
  explicit PostgresStore(const std::string& address, int connections = 4);
  ~PostgresStore() override;

  using Store::putImage;
  std::string putImage(std::span<const std::uint8_t> png, const std::string& id) override;
  bool hasImage(const std::string& id, std::uint64_t size) const override;
  std::optional<std::uint64_t> imageSize(const std::string& id) const override;
  std::unique_ptr<PendingImage> writeImage(std::span<const std::uint8_t> png,
                                           const std::string& id) override;
  std::optional<std::vector<std::uint8_t>> readImage(const std::string& id) const override;
  std::optional<std::vector<std::uint8_t>> imageHead(const std::string& id,
                                                     std::size_t count) const override;
  /// Nothing to wait for: a committed row is durable.
  void flushImages() override {}
  std::int64_t removeUnusedImages(const std::string& prefix, std::int64_t before) override;
  std::chrono::nanoseconds timeInDatabase() const override;

  class Connection;

 protected:
  storage::Lease lease() override;
  const char* schemaTable() const override { return "saffra_schema"; }

 private:
  storage::Lease lease() const { return const_cast<PostgresStore*>(this)->lease(); }
  /// Creates or upgrades the schema, or refuses the database.
  void migrate();
  std::unique_ptr<Connection> connect();
  void giveBack(Connection* connection) noexcept;

  std::string address_;
  /// Where the database is, for messages: host, port and database name (never the password).
  std::string where_;
  const int connections_;
  std::mutex poolMutex_;
  std::condition_variable poolFree_;
  std::vector<std::unique_ptr<Connection>> idle_;
  int open_ = 0;  // connections made and not closed, idle or lent
};

}  // namespace saffra::server
