// A program that is linked with the virtual Canon camera may load the virtual Nikon camera, whose
// functions have the same names.
#include "Support.h"
#include "virtualcamera/SteeredLibrary.h"

namespace {

using LinkedCamera = VirtualTest;

TEST_F(LinkedCamera, IsNotSteeredByTheOneThatIsLoaded)
{
    const SteeredLibrary nikon(VIRTUAL_NIKON_LIBRARY);
    ASSERT_TRUE(nikon.isLoaded());
    EXPECT_NE(nikon.configure, &VirtualCameraConfigure);
    ASSERT_EQ(VirtualCameraAdd("Second", 1), 1);
    nikon.reset();
    EXPECT_EQ(VirtualCameraCount(), 2);
    EXPECT_EQ(nikon.count(), 1);
    // Made of another function of the interface.
    EXPECT_EQ(nikon.failNext("EdsOpenSession", 0x81, 1), 0);
    EXPECT_EQ(VirtualCameraLastError(nullptr, 0), 0);
    EXPECT_EQ(VirtualCameraFailNext("EdsOpenSession", 0x81, 1), 1);
}

}  // namespace
