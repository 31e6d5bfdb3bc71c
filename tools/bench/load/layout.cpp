#include "layout.h"

bench_Shape::bench_Shape(suts_tsspec const& spec, int first, int last) {
    for (int i = first; i < last; ++i) {
        if (spec.Type(i) == SUTS_STRING64) {
            beforeTexts_.push_back(behindTexts_ + SUTS_STRING_LENGTH_BYTES);
            behindTexts_ = 0;
        } else {
            behindTexts_ += spec.Type(i) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
        }
    }
}
