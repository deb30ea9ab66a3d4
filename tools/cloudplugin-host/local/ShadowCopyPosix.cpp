// No shadow copy service outside Windows: backup --use-fs-snapshot is
// refused as a bad command line there.
#include "local/ShadowCopy.h"

#include "util/Error.h"

namespace qvhost {

struct ShadowCopy::Session {};

ShadowCopy::ShadowCopy(const std::string&) {
    throw Error(ErrorKind::Usage, "--use-fs-snapshot takes a Volume Shadow Copy, which only Windows has");
}

ShadowCopy::~ShadowCopy() = default;

}  // namespace qvhost
