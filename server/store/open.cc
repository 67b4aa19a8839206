// Opening the store: the engine is chosen by the form of the address.
#include <memory>
#include <string>

#include "server/store.h"
#include "server/store/postgres/postgres_store.h"
#include "server/store/sqlite/sqlite_store.h"

namespace saffra::server {

bool isDatabaseAddress(const std::string& where) {
  return where.rfind("postgresql://", 0) == 0 || where.rfind("postgres://", 0) == 0;
}

std::unique_ptr<Store> openStore(const std::string& where) {
  if (isDatabaseAddress(where)) return std::make_unique<PostgresStore>(where);
  return std::make_unique<SqliteStore>(where);
}

}  // namespace saffra::server
