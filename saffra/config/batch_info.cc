#include "saffra/config/batch_info.h"

#include <chrono>

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/base/environment_helper.h"
#include "saffra/platform/format.h"
#include "saffra/platform/uuid.h"

namespace saffra {

BatchInfo::BatchInfo(const OptString& name) : BatchInfo(name, std::chrono::system_clock::now()) {}

BatchInfo::BatchInfo(const OptString& name, Date startedAt) {
  batchId_ = EnvironmentHelper::environmentPair("QUORVANT_BATCH_ID", "bamboo_QUORVANT_BATCH_ID");
  if (!batchId_) batchId_ = newUUIDString();

  if (Configurable::isNotEmpty(name)) {
    name_ = name;
  } else {
    name_ = EnvironmentHelper::environmentPair("QUORVANT_BATCH_NAME", "bamboo_QUORVANT_BATCH_NAME");
  }

  startedAtString_ = stringFromStartedAt(startedAt);

  OptString sequence = EnvironmentHelper::environmentPair("QUORVANT_BATCH_SEQUENCE",
                                                          "bamboo_QUORVANT_BATCH_SEQUENCE");
  if (Configurable::isNotEmpty(sequence)) sequenceName_ = sequence;
}

void BatchInfo::setBatchId(const OptString& batchId) {
  ArgumentGuard::notNilOrEmpty(batchId, "batchId");
  batchId_ = batchId;
}

void BatchInfo::setSequenceName(const OptString& sequenceName) {
  ArgumentGuard::notNilOrEmpty(sequenceName, "sequenceName");
  sequenceName_ = sequenceName;
}

std::string BatchInfo::stringFromStartedAt(Date startedAt) {
  // The first pattern's unquoted "T" stops the formatter, so it yields the date alone; the time
  // of day and the literal "Z" are added around it.
  DateFormatter formatter;
  formatter.setDateFormat("yyyy-MM-ddTHH:mm:ssZ");
  std::string first = formatter.stringFromDate(startedAt);
  formatter.setDateFormat("HH:mm:ss");
  std::string second = formatter.stringFromDate(startedAt);
  return format("%@T%@Z", first, second);
}

Json BatchInfo::dictionary() const {
  Json d = Json::object();
  if (name_) d["name"] = *name_;
  d["startedAt"] = startedAtString_;
  if (batchId_) d["id"] = *batchId_;
  if (sequenceName_) d["batchSequenceName"] = *sequenceName_;
  return d;
}

}  // namespace saffra
