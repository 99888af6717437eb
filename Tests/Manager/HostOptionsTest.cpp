// Each host's own switch lets its pipeline be the GPU's, and no other's.
#include <gtest/gtest.h>

#include "Instance.h"
#include "Utils/vdSettings.h"

TEST(HostOptions, EachHostHasItsOwnSwitchForTheGpu) {
    for (const int32_t framework : {brFrameworkShell, brFrameworkPremiere, brFrameworkAfterEffects})
        for (const bool premiere : {false, true})
            for (const bool afterEffects : {false, true}) {
                options().prproHybridGPUCPUDecoding = premiere;
                options().aeLayerSettingsGPUEnabled3 = afterEffects;
                Instance instance;
                instance.framework = framework;
                initBM(instance);
                EXPECT_EQ(instance.useGpuPipeline,
                          (framework == 4 && premiere) || (framework == 6 && afterEffects))
                    << framework;
            }
    resetOptions();
}
