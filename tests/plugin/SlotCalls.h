// Calls the plug-in object's operations the way a host binary does: through
// entry N of the object's virtual table, with the argument types of the
// host contract, not through the C++ declarations. A plug-in whose table
// were in another order would answer with another operation, which the
// suites see in the lines logged, the results and the Java calls made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cloudplugin/ICloudPluginInterface.h"

namespace plugintest {

// Calls entry `slot` of the object's virtual table with `args`, the object
// going first as on every C++ member call of the platforms built for.
template <typename Result, typename... Args>
Result CallSlot(ICloudPluginInterface* object, size_t slot, Args... args) {
    using Entry = Result (*)(ICloudPluginInterface*, Args...);
    void* const* table = *reinterpret_cast<void* const* const*>(object);
    return reinterpret_cast<Entry>(table[slot])(object, args...);
}

// The arguments the slot calls below pass, kept so that tests can read the
// outputs.
struct SlotArguments {
    std::vector<uint8_t> data{1, 2, 3};
    std::vector<uint8_t> readBuffer = std::vector<uint8_t>(8, 0);
    uint64_t length = 0;
    ObjectMetaData metaData{{u"k", {u"v", 7}}};
    ObjectMetaData readMetaData;
    WideString handle;
    WideString text;
    WideString names[2] = {u"p1", u"p2"};
    WideString path = u"dir/";
    JobInfoRecord job{{1, 2, 3, 4, 5, 6}};
    ObjectSubList* subList = nullptr;
    StringList list;
    CapabilitiesRecord capabilities;
    AccountInfoRecord account;
    int64_t sizes[3] = {0, 0, 0};
    uint32_t flag = 0;
    int32_t value = 0;
};

struct SlotCall {
    size_t slot;
    const char* operation;
    // Calls the slot through the table; a slot without a result answers 0.
    std::function<uint32_t(ICloudPluginInterface*, SlotArguments&)> call;
};

// One call of every slot, in slot order (0 to 57), each with arguments
// that tell it apart from its neighbours.
const std::vector<SlotCall>& AllSlotCalls();

// The call of one slot.
const SlotCall& SlotCallAt(size_t slot);

}  // namespace plugintest
