// SPDX-License-Identifier: BSD-3-Clause
// Exceptions stay on our side of the library: what fails inside one of its callbacks is kept and thrown
// again where the library has returned.
#ifndef CVNET_KEPT_FAILURE_H
#define CVNET_KEPT_FAILURE_H

#include <exception>

namespace cvnet {

class KeptFailure {
public:
    /// Does `work`, and keeps what it throws. After that, nothing more is done.
    template <class Work>
    void keep(const Work& work) noexcept {
        if (any()) return;
        try {
            work();
        } catch (...) {
            failure_ = std::current_exception();
        }
    }

    bool any() const { return failure_ != nullptr; }

    void throwIfAny() const {
        if (failure_) std::rethrow_exception(failure_);
    }

private:
    std::exception_ptr failure_;
};

}  // namespace cvnet

#endif
