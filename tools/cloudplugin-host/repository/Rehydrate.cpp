#include "repository/Rehydrate.h"

namespace qvhost::repo {

void RehydrateObjects(ObjectStore& store, const std::vector<StoredObject>& objects, const RehydrateRequest& request,
                      Rehydration& state) {
    for (const StoredObject& object : objects) {
        if (!object.archiveStatus.empty()) {
            state.pending.push_back(object.name);
        } else if (object.tier == kArchiveTier) {
            store.SetTier(object.name, request.tier, request.priority);
            state.requested.push_back(object.name);
        } else {
            ++state.online;
        }
    }
}

}  // namespace qvhost::repo
