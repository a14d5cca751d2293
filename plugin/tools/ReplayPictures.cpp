// kestrel-replay-pictures: what a plug-in finds in a folder of JPEG pictures.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <getopt.h>

#include "JpegSize.h"
#include "frame_process.h"

namespace {

const char* const USAGE =
    "usage: kestrel-replay-pictures [OPTION] PLUGIN FOLDER\n"
    "Gives the JPEG pictures of a folder to a vision plug-in, in the order of their names, and\n"
    "prints what it answers: exposure, position and measure, or the results of failures.\n"
    "  PLUGIN           a shared library with the seven entry points, e.g. ./libframe_process.so\n"
    "  --sequence       the pictures are those of measurements, two of each: findPos gets the first,\n"
    "                   autoFocus the second; otherwise each picture stands alone and gets both\n"
    "  --corrected DIR  write the pictures that undistort corrects into another folder\n";

struct EntryPoints
{
    decltype(&::init) pInit = nullptr;
    decltype(&::uninit) pUninit = nullptr;
    decltype(&::undistort) pUndistort = nullptr;
    decltype(&::autoFocus) pAutoFocus = nullptr;
    decltype(&::findPos) pFindPos = nullptr;
    decltype(&::setExposure) pSetExposure = nullptr;
    decltype(&::easyFun) pEasyFun = nullptr;
};

template <typename FUNCTION> bool find(void* pHandle, const char* pName, FUNCTION& pFunction)
{
    void* const pSymbol = dlsym(pHandle, pName);
    if (nullptr == pSymbol) {
        fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    memcpy(&pFunction, &pSymbol, sizeof(pFunction));
    return true;
}

/** As the service looks for it and in its order; the library stays loaded. */
bool load(const std::string& strPlugin, EntryPoints& entry)
{
    void* const pHandle = dlopen(strPlugin.c_str(), RTLD_LAZY);
    if (nullptr == pHandle) {
        fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    return find(pHandle, "init", entry.pInit) && find(pHandle, "uninit", entry.pUninit) &&
           find(pHandle, "undistort", entry.pUndistort) &&
           find(pHandle, "autoFocus", entry.pAutoFocus) &&
           find(pHandle, "findPos", entry.pFindPos) &&
           find(pHandle, "setExposure", entry.pSetExposure) &&
           find(pHandle, "easyFun", entry.pEasyFun);
}

bool isJpeg(const std::filesystem::path& path)
{
    return ".jpg" == path.extension() || ".jpeg" == path.extension();
}

struct Replayed
{
    uint32_t u32Size;
    uint32_t u32Width;
    uint32_t u32Height;
    const uint8_t* pData;
};

void findPosition(const EntryPoints& entry, const Replayed& picture)
{
    int32_t s32Exposure = 0;
    entry.pSetExposure(&s32Exposure);
    float fX = 0;
    float fY = 0;
    const int nResult = entry.pFindPos(picture.u32Size, picture.u32Width, picture.u32Height,
                                       picture.pData, &fX, &fY);
    printf(" exposure %d", s32Exposure);
    if (nResult > 0) {
        printf(" findPos failed: %d", nResult);
    } else {
        printf(" x %.3f y %.3f", static_cast<double>(fX), static_cast<double>(fY));
    }
}

void focus(const EntryPoints& entry, const Replayed& picture)
{
    float fMeasure = 0;
    const int nResult = entry.pAutoFocus(picture.u32Size, picture.u32Width, picture.u32Height,
                                         picture.pData, &fMeasure);
    if (nResult > 0) {
        printf(" autoFocus failed: %d", nResult);
    } else {
        printf(" measure %.3f", static_cast<double>(fMeasure));
    }
}

/** @return false when the picture cannot be written */
bool correct(const EntryPoints& entry, const Replayed& picture, const std::filesystem::path& path)
{
    FRAME_PROCESS_UNDISTORT_T record{};
    const int nResult = entry.pUndistort(picture.u32Size, picture.u32Width, picture.u32Height,
                                         picture.pData, &record);
    if (0 != nResult) {
        printf(" undistort failed: %d", nResult);
        return true;
    }
    printf(" corrected %d x %d", record.s32Width, record.s32Height);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(record.pData), std::max(record.s32Size, 0));
    file.close();
    if (!file) {
        perror(path.c_str());
    }
    return file.good();
}

int replay(const EntryPoints& entry, const std::string& strFolder, bool bSequence,
           const std::string& strCorrected)
{
    std::vector<std::filesystem::path> vecPath;
    for (const auto& file : std::filesystem::directory_iterator(strFolder)) {
        if (isJpeg(file.path())) {
            vecPath.push_back(file.path());
        }
    }
    std::sort(vecPath.begin(), vecPath.end());
    entry.pInit();
    bool bFirst = true;
    for (const std::filesystem::path& path : vecPath) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> vecByte{std::istreambuf_iterator<char>(file), {}};
        Replayed picture{static_cast<uint32_t>(vecByte.size()), 0, 0,
                         reinterpret_cast<const uint8_t*>(vecByte.data())};
        printf("%s:", path.filename().c_str());
        if (!jpegSize(picture.pData, picture.u32Size, picture.u32Width, picture.u32Height)) {
            printf(" not a JPEG picture\n");
            continue;
        }
        if (!bSequence || bFirst) {
            findPosition(entry, picture);
        }
        if (!bSequence || !bFirst) {
            focus(entry, picture);
        }
        bFirst = !bFirst;
        if (!strCorrected.empty() &&
            !correct(entry, picture, std::filesystem::path(strCorrected) / path.filename())) {
            return 1;
        }
        printf("\n");
        if (!bSequence) { // forget this picture before the next
            entry.pUninit();
            entry.pInit();
        }
    }
    entry.pUninit();
    if (vecPath.empty()) {
        fprintf(stderr, "%s holds no file *.jpg\n", strFolder.c_str());
        return 1;
    }
    return 0;
}

} // namespace

int main(int nArgs, char** apArgs)
{
    const option aOption[] = {{"help", no_argument, nullptr, 'h'},
                              {"sequence", no_argument, nullptr, 's'},
                              {"corrected", required_argument, nullptr, 'c'},
                              {nullptr, 0, nullptr, 0}};
    bool bSequence = false;
    std::string strCorrected;
    for (int nOption = 0; - 1 != (nOption = getopt_long(nArgs, apArgs, "", aOption, nullptr));) {
        switch (nOption) {
        case 'h':
            fputs(USAGE, stdout);
            return 0;
        case 's':
            bSequence = true;
            break;
        case 'c':
            strCorrected = optarg;
            break;
        default:
            fputs(USAGE, stderr);
            return 2;
        }
    }
    if (nArgs - optind != 2) {
        fputs(USAGE, stderr);
        return 2;
    }
    EntryPoints entry;
    if (!load(apArgs[optind], entry)) {
        return 1;
    }
    try {
        return replay(entry, apArgs[optind + 1], bSequence, strCorrected);
    } catch (const std::exception& exception) {
        fprintf(stderr, "%s\n", exception.what());
        return 1;
    }
}
