#include "runtime/settings.h"

#include <utility>

#include "runtime/immortal.h"

namespace KITE::Linux {

namespace {

Settings& Current() {
    static Immortal<Settings> settings;
    return settings.value;
}

}  // namespace

void SetSettings(Settings settings) {
    Current() = std::move(settings);
}

const Settings& GetSettings() {
    return Current();
}

}  // namespace KITE::Linux
