// The vision host in a folder of its own, with frames from the virtual camera.
#include "VisionHost.h"

#include <cstring>

#include <dlfcn.h>

namespace {

const char* const LIBRARY = "./libframe_process.so";

/**
 * The host never closes a library, and glibc gives a name that is loaded to whoever asks for it:
 * take back the host's own reference too, so that the next test's library can be loaded. musl
 * unloads nothing, but tells libraries apart by their files.
 */
void unload()
{
    std::filesystem::remove(LIBRARY);
    void* pHandle = dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    for (int i = 0; nullptr != pHandle && i < 10; ++i) {
        dlclose(pHandle);
        dlclose(pHandle);
        pHandle = dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    }
    EXPECT_EQ(nullptr, pHandle);
}

} // namespace

VisionHost::VisionHost() : m_before(std::filesystem::current_path())
{
    std::filesystem::current_path(m_folder.path());
}

VisionHost::~VisionHost()
{
    (void)VideoCapturer::getInstance().stop(); // both succeed always
    (void)VideoCapturer::getInstance().uninit();
    (void)m_host.stop();
    unload();
    (void)m_host.init(); // without a plug-in again
    std::filesystem::current_path(m_before);
}

void VisionHost::load(const std::string& strName)
{
    std::filesystem::copy_file(std::string(TEST_PLUGIN_FOLDER) + "/lib" + strName + ".so", LIBRARY);
    ASSERT_EQ(RET_SUCCESS, m_host.init());
}

TestPlugin& VisionHost::plugin() const
{
    void* pHandle = dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    auto pFunction = reinterpret_cast<TestPlugin* (*)()>(dlsym(pHandle, "testPlugin"));
    dlclose(pHandle); // the host keeps it loaded
    return *pFunction();
}

void VisionHost::startCapture()
{
    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().init());
    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().start());
}

std::vector<std::string> VisionHost::messages() const
{
    std::vector<std::string> vecLine;
    for (const std::string& strLine : m_log.lines()) {
        if (std::string::npos != strLine.find("[videoprocess/VideoProcessor ]")) {
            vecLine.push_back(strLine);
        }
    }
    return vecLine;
}

uint32_t VisionHost::numberOf(const void* pData, size_t uSize) const
{
    for (const VirtualCamera::Frame& frame : m_camera.frames()) {
        if (uSize == frame.strPicture.size() &&
            0 == memcmp(pData, frame.strPicture.data(), uSize)) {
            return frame.u32Number;
        }
    }
    return 0;
}
