// Copying an embedded store (an SQLite file and its image folder) into a PostgreSQL database:
// every row, table by table in the order their references need, and every image a row refers
// to, each checked against its hash. Rows already present are left as they are, so a copy that
// stopped half-way, or one made before, is completed by running it again.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "server/store.h"
#include "server/store/postgres/postgres_store.h"
#include "server/store/sqlite/sqlite_store.h"

namespace saffra::server {

using storage::Lease;
using storage::Statement;
using storage::Transaction;

namespace {

enum class Kind { Text, Integer };

struct Column {
  const char* name;
  Kind kind;
};

struct Table {
  const char* name;
  /// The columns copied; the first `keyColumns` are the primary key.
  std::vector<Column> columns;
  /// The order rows were added in (sessions and decisions are listed in that order).
  const char* order;
  /// A column whose values come from a sequence in PostgreSQL, moved past the copied ones.
  const char* serial = nullptr;
};

constexpr Kind T = Kind::Text;
constexpr Kind I = Kind::Integer;

// In the order of their references: a version after its baseline, a step after its session.
const std::vector<Table>& tables() {
  static const std::vector<Table> kTables = {
      {"batches",
       {{"id", T},
        {"name", T},
        {"started_at", T},
        {"sequence_name", T},
        {"is_closed", I},
        {"closed_at", I}},
       "rowid"},
      {"baselines",
       {{"id", I}, {"key", T}, {"updated_at", I}, {"current_version", I}, {"latest_version", I}},
       "id",
       "id"},
      {"baseline_versions",
       {{"baseline_id", I},
        {"version", I},
        {"created_at", I},
        {"kind", T},
        {"session_id", T},
        {"from_version", I}},
       "baseline_id, version"},
      {"baseline_version_steps",
       {{"baseline_id", I}, {"version", I}, {"position", I}, {"tag", T}, {"image", T}},
       "baseline_id, version, position"},
      {"baseline_alternatives",
       {{"baseline_id", I}, {"version", I}, {"position", I}, {"image", T}},
       "baseline_id, version, position, image"},
      {"sessions",
       {{"id", T},
        {"token", T},
        {"info", T},
        {"baseline_key", T},
        {"baseline_id", I},
        {"is_new", I},
        {"started_at", I},
        {"batch_id", T},
        {"outcome", T},
        {"baseline_version", I},
        {"baseline_branch", T},
        {"last_active_at", I}},
       "rowid"},
      {"steps",
       {{"session_id", T},
        {"position", I},
        {"tag", T},
        {"current_image", T},
        {"baseline_image", T},
        {"diff_image", T},
        {"as_expected", I},
        {"match_level", T},
        {"accessibility", T},
        {"settings", T},
        {"baseline_position", I},
        {"matched_alternative", I}},
       "session_id, position"},
      {"reviews",
       {{"session_id", T}, {"position", I}, {"accepted", I}, {"as_alternative", I}},
       "session_id, position"},
      {"step_changes",
       {{"session_id", T}, {"position", I}, {"changes", T}},
       "session_id, position"},
      {"decisions",
       {{"id", I}, {"reviewer", T}, {"scope", T}, {"made_at", I}, {"undone", I}},
       "id",
       "id"},
      {"decision_sessions",
       {{"decision_id", I}, {"session_id", T}, {"outcome", T}, {"reviews", T}},
       "rowid"},
      {"decision_baselines",
       {{"decision_id", I},
        {"baseline_id", I},
        {"session_id", T},
        {"previous_version", I},
        {"made_version", I}},
       "decision_id, baseline_id"},
      {"api_keys",
       {{"digest", T}, {"name", T}, {"created_at", I}, {"revoked_at", I}},
       "created_at, digest"},
      {"shared_secrets", {{"name", T}, {"value", T}}, "name"},
  };
  return kTables;
}

std::string columnList(const Table& table) {
  std::string list;
  for (const Column& c : table.columns) list += (list.empty() ? "" : ", ") + std::string(c.name);
  return list;
}

std::int64_t countRows(storage::Link& link, const std::string& table) {
  Statement s(link, "SELECT count(*) FROM " + table);
  s.step();
  return s.integer(0);
}

// Rows are written in transactions of this many, so another service on the database waits for
// one piece at most.
constexpr int kRowsPerTransaction = 500;

// Copies the rows of one table that the target lacks.
MigrationReport::Table copyTable(storage::Link& from, storage::Link& to, const Table& table) {
  const std::string columns = columnList(table);
  std::string placeholders;
  for (std::size_t i = 1; i <= table.columns.size(); ++i) {
    placeholders += (i > 1 ? ", ?" : "?") + std::to_string(i);
  }
  MigrationReport::Table counts{table.name, 0, 0, 0};
  Statement read(from, "SELECT " + columns + " FROM " + table.name + " ORDER BY " + table.order);
  const std::string insert = "INSERT INTO " + std::string(table.name) + "(" + columns +
                             ") VALUES(" + placeholders + ") ON CONFLICT DO NOTHING";
  for (bool more = read.step(); more;) {
    Transaction transaction(to);
    for (int n = 0; more && n < kRowsPerTransaction; ++n, more = read.step()) {
      Statement write(to, insert);
      for (std::size_t c = 0; c < table.columns.size(); ++c) {
        const int column = static_cast<int>(c);
        if (read.isNull(column)) {
          write.bindNull(column + 1);
        } else if (table.columns[c].kind == Kind::Integer) {
          write.bind(column + 1, read.integer(column));
        } else {
          write.bind(column + 1, read.text(column));
        }
      }
      write.run();
      counts.added += to.changes();
      ++counts.source;
    }
    transaction.commit();
  }
  if (table.serial) {
    // New rows made by the service after the copy take numbers past the copied ones.
    Statement s(to, std::string("SELECT setval(pg_get_serial_sequence('") + table.name + "', '" +
                        table.serial + "'), (SELECT coalesce(max(" + table.serial +
                        "), 0) + 1 FROM " + table.name + "), false)");
    s.run();
  }
  counts.target = countRows(to, table.name);
  if (counts.target < counts.source) {
    throw StoreError(std::string("the copy of ") + table.name + " holds " +
                     std::to_string(counts.target) + " rows of " + std::to_string(counts.source));
  }
  return counts;
}

}  // namespace

MigrationReport SqlStore::copyInto(Store& target,
                                   const std::function<void(const std::string&)>& progress) {
  auto* into = dynamic_cast<SqlStore*>(&target);
  if (!into) throw StoreError("the target is not a database of this program");
  MigrationReport report;
  // The target is empty, or a copy of this store made before: this identity tells which.
  const std::string identity = sharedSecret("store");
  std::vector<std::string> images;
  {
    Lease from = lease();
    Lease to = into->lease();
    {
      const bool hasData = countRows(*to, "sessions") > 0 || countRows(*to, "baselines") > 0;
      Statement s(*to, "SELECT value FROM shared_secrets WHERE name = 'store'");
      if (s.step() ? s.text(0) != identity : hasData) {
        throw StoreError(
            "the database already holds the data of another store; copy into an empty database");
      }
    }
    for (const Table& table : tables()) {
      report.tables.push_back(copyTable(*from, *to, table));
      const MigrationReport::Table& counts = report.tables.back();
      progress(counts.name + ": " + std::to_string(counts.source) + " rows, " +
               std::to_string(counts.added) + " copied now");
    }
    // Every image a row refers to, each once.
    Statement s(*from,
                "SELECT current_image FROM steps UNION SELECT baseline_image FROM steps WHERE "
                "baseline_image IS NOT NULL UNION SELECT diff_image FROM steps WHERE diff_image "
                "IS NOT NULL UNION SELECT image FROM baseline_version_steps UNION SELECT image "
                "FROM baseline_alternatives ORDER BY 1");
    while (s.step()) images.push_back(s.text(0));
  }
  // One image in memory at a time; each is stored under its id only when its bytes hash to it,
  // and read back from the target to check that they arrived whole.
  for (const std::string& id : images) {
    std::optional<std::uint64_t> size = imageSize(id);
    if (!size) {
      ++report.imagesMissing;  // a step of the last moments before a power loss
      continue;
    }
    ++report.images;
    if (target.hasImage(id, *size)) continue;
    std::optional<std::vector<std::uint8_t>> png = readImage(id);
    if (!png || imageIdOf(*png) != id) {
      throw StoreError("the image " + id + " of the data folder does not match its hash");
    }
    target.putImage(*png, id);
    ++report.imagesAdded;
    std::optional<std::vector<std::uint8_t>> copied = target.readImage(id);
    if (!copied || imageIdOf(*copied) != id) {
      throw StoreError("the copy of image " + id + " does not match its hash");
    }
    if (report.imagesAdded % 500 == 0) {
      progress("images: " + std::to_string(report.imagesAdded) + " copied so far");
    }
  }
  progress("images: " + std::to_string(report.images) + ", " + std::to_string(report.imagesAdded) +
           " copied now" +
           (report.imagesMissing > 0
                ? ", " + std::to_string(report.imagesMissing) + " missing in the data folder"
                : std::string()));
  return report;
}

}  // namespace saffra::server
