// A holder of one shared object, through which the session keeps its viewport size.
#pragma once

#include <memory>

namespace saffra {

/// Stores and hands out one object.
template <class T>
class PropertyHandlerProtocol {
 public:
  virtual ~PropertyHandlerProtocol() = default;
  /// Stores the object; true when it was accepted.
  virtual bool setProperty(std::shared_ptr<T> object) = 0;
  virtual std::shared_ptr<T> property() const = 0;
};

/// Keeps whatever it is given.
template <class T>
class SimplePropertyHandler : public PropertyHandlerProtocol<T> {
 public:
  /// Always stores the object and returns true.
  bool setProperty(std::shared_ptr<T> object) override {
    object_ = std::move(object);
    return true;
  }
  std::shared_ptr<T> property() const override { return object_; }

 private:
  std::shared_ptr<T> object_;
};

}  // namespace saffra
