// How long the agent takes to save its settings.
//
// save-store COUNT     loads the settings of the box and saves them so often
#include "BenchSupport.h"
#include "SaveTime.h"
#include "ZelConfig.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        BenchSupport::GiveUp("usage: save-store COUNT");
    }
    const int count = BenchSupport::Argument<int>(argv[1], "number of saves");
    ZelConfig config;
    if (!config.Load() || !SaveTime::Print(count, [&config] { return config.Save(); })) {
        BenchSupport::GiveUp("the settings cannot be loaded and saved");
    }
}
