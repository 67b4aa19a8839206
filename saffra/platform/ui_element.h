// A user-interface element whose on-screen frame can be read at any moment. Test code derives
// from it to connect element-based regions to its own UI-testing facility.
#pragma once

#include <memory>

#include "saffra/platform/geometry.h"

namespace saffra {

/// An element on screen; used through std::shared_ptr.
class UIElement {
 public:
  virtual ~UIElement() = default;
  /// The element's current frame in points.
  virtual Rect frame() const = 0;
  /// A copy of the element, or nullptr when it cannot be copied (the default).
  virtual std::shared_ptr<UIElement> copy() const { return nullptr; }
};

}  // namespace saffra
