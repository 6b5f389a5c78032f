#include "transfer/TransferProgress.hpp"

#include <algorithm>

namespace varnel {

double TransferProgress::fractionCompleted() const {
    if (totalBytesPlanned > 0) {
        return std::min(1.0, static_cast<double>(bytesTransferred) / static_cast<double>(totalBytesPlanned));
    }
    if (totalFilesPlanned > 0) {
        const int finished = filesCompleted + filesSkipped + filesFailed;
        return std::min(1.0, static_cast<double>(finished) / static_cast<double>(totalFilesPlanned));
    }
    return 0.0;
}

}  // namespace varnel
