#include "refbase.h"

namespace KITE {

void RefBase::DecStrongRef() const noexcept {
    if (strong_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

}  // namespace KITE
