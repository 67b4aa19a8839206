// Something that can close a batch of tests on the service (a session object).
#pragma once

#include "saffra/platform/nullable.h"

namespace saffra {

/// Closes the batch with the given id and waits for the service's answer.
class BatchCloserProtocol {
 public:
  virtual ~BatchCloserProtocol() = default;
  virtual void closeBatchWithId(const OptString& batchId) = 0;
};

}  // namespace saffra
