// The batch that groups the tests of one run on the service: an id, a display name, the start
// time as text and an optional sequence name. Id, name and sequence default from the
// environment (QUORVANT_BATCH_ID, QUORVANT_BATCH_NAME, QUORVANT_BATCH_SEQUENCE and their
// "bamboo_" twins).
#pragma once

#include <memory>
#include <string>

#include "saffra/platform/date.h"
#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// One batch of tests; used through std::shared_ptr.
class BatchInfo {
 public:
  /// A batch started now. An absent or empty name is taken from the environment.
  explicit BatchInfo(const OptString& name);
  /// A batch started at `startedAt`. The id comes from the environment and becomes a new random
  /// UUID only when the environment gives none at all (an empty id is kept); the sequence name
  /// is kept only when the environment's is not empty.
  BatchInfo(const OptString& name, Date startedAt);

  const OptString& name() const { return name_; }
  const std::string& startedAtString() const { return startedAtString_; }
  const OptString& batchId() const { return batchId_; }
  /// Stores the value as it is; an absent id is left out of the wire form.
  void setBatchId(const OptString& batchId);
  const OptString& sequenceName() const { return sequenceName_; }
  void setSequenceName(const OptString& sequenceName);

  /// The start time as sent: the local date, "T", the local time of day and a literal "Z",
  /// e.g. "2024-03-05T14:07:09Z" (local time, not converted to UTC).
  static std::string stringFromStartedAt(Date startedAt);

  /// The wire form: "name", "startedAt", "id", "batchSequenceName", each only when present (for
  /// the library's own use).
  Json dictionary() const;

 private:
  OptString name_;
  std::string startedAtString_;
  OptString batchId_;
  OptString sequenceName_;
};

}  // namespace saffra
