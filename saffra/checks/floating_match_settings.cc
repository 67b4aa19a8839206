#include "saffra/checks/floating_match_settings.h"

namespace saffra {

Json FloatingMatchSettings::dictionary() const {
  Json d = Json::object();
  d["left"] = left_;
  d["top"] = top_;
  d["width"] = width_;
  d["height"] = height_;
  d["maxUpOffset"] = maxUpOffset_;
  d["maxDownOffset"] = maxDownOffset_;
  d["maxLeftOffset"] = maxLeftOffset_;
  d["maxRightOffset"] = maxRightOffset_;
  return d;
}

}  // namespace saffra
