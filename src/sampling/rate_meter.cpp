#include "sampling/rate_meter.hpp"

namespace vistrel {

std::pair<double, double> RateMeter::update(uint64_t a, uint64_t b, double now) {
  std::pair<double, double> rates{0.0, 0.0};
  if (last_ && last_->time < now && a >= last_->a && b >= last_->b) {
    double seconds = now - last_->time;
    rates = {static_cast<double>(a - last_->a) / seconds,
             static_cast<double>(b - last_->b) / seconds};
  }
  last_ = Last{a, b, now};
  return rates;
}

}  // namespace vistrel
