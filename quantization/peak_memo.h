// Within one Observe call the peak of the observed data is asked for more
// than once (by the estimator step and again by UpdateLimit). PeakMemo keeps
// the peak of that one buffer for the duration of the call, on the calling
// thread, so that CalibrationWithPeak reads it only once. The buffer is not
// written to while Observe runs: observers take it as const.
#pragma once

namespace qzdl {
namespace staticQuantization {

class PeakMemo {
 public:
  PeakMemo(const float* data, unsigned long count);
  ~PeakMemo();
  PeakMemo(const PeakMemo&) = delete;
  PeakMemo& operator=(const PeakMemo&) = delete;

  // The remembered peak of (data, count), if any.
  static bool Find(const float* data, unsigned long count, float& min, float& max);
  // Remembers the peak of (data, count) if it is the buffer of the
  // outermost open PeakMemo.
  static void Store(const float* data, unsigned long count, float min, float max);
};

}  // namespace staticQuantization
}  // namespace qzdl
