#include "common/Localization.hpp"

#include <libintl.h>

namespace varnel {

const char* tr(const char* english) {
    return dgettext(kTextDomain, english);
}

}  // namespace varnel
