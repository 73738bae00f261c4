// A frame rate as a fraction, because 30000/1001 has no exact value in another form.
#pragma once

#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// Frames per second.
struct FrameRate {
    int64_t numerator = 0;
    int64_t denominator = 1;

    double value() const {
        return static_cast<double>(numerator) / static_cast<double>(denominator);
    }
};

}  // namespace qmmediaeditor
}  // namespace android
