// The function catalogue: ids are the trace format, so every family's range, its start rows and its
// neighbours are pinned here.
#include "api/api.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace kv::api {
namespace {

TEST(Catalogue, StartRowsHaveEmptyNamesAndIdsOutsideEveryRangeHaveNone) {
    for (uint32_t id : {2000u, 3000u, 4000u, 5142u, 7000u, 7069u, 1000u, 6000u, 6500u}) {
        const char *name = functionName(id);
        ASSERT_NE(name, nullptr) << id;
        EXPECT_STREQ(name, "") << id;
    }
    for (uint32_t id :
         {5141u, 2143u, 3146u, 4349u, 5247u, 7114u, 1045u, 1125u, 1504u, 6091u, 6516u, 0u, 65535u})
        EXPECT_EQ(functionName(id), nullptr) << id;
}

TEST(Catalogue, NamesAndGroupsSitAtTheirIds) {
    struct Row {
        uint16_t id;
        const char *name;
        uint8_t group;
    };
    const Row rows[] = {
        {1001, "eglChooseConfig", 2},
        {1044, "eglWaitSync", 5},
        {1112, "(*EGLSetBlobFuncANDROID)", 10},
        {1124, "eglSetDamageRegionKHR", 10},
        {1502, "(Context information)", 0},
        {2016, "glClear", 12},
        {2142, "glViewport", 3},
        {3004, "glBindBuffer", 2},
        {3145, "glPointSizePointerOES", 18},
        {4134, "glBlendEquationSeparateOES", 28},
        {4348, "glMultiDrawElementsBaseVertexOES", 28},
        {5143, "glReadBuffer", 24},
        {5246, "glGetInternalformativ", 13},
        {7068, "glGetTexLevelParameterfv", 22},
        {7070, "glBlendBarrier", 9},
        {7113, "glTexStorage3DMultisample", 22},
        {6015, "clCreateBuffer", 3},
        {6089, "clGetExtensionFunctionAddressForPlatform", 2},
        {6515, "clCreateEventFromEGLSyncKHR", 8},
    };
    for (const Row &r : rows) {
        EXPECT_STREQ(functionName(r.id), r.name) << r.id;
        const FuncDesc *d = describe(r.id);
        ASSERT_NE(d, nullptr) << r.id;
        EXPECT_EQ(d->group, r.group) << r.id;
        EXPECT_STREQ(d->name, r.name) << r.id;
    }
    // The OpenCL extensions' start row carries group 8, unlike every other start row.
    EXPECT_EQ(describe(6500)->group, 8u);
    EXPECT_EQ(describe(7069)->group, 0u);
}

TEST(Catalogue, FamiliesAreContiguousAndEveryRowIsDescribed) {
    size_t rows = 0;
    std::set<uint32_t> seen;
    for (const FamilyRange &range : kFamilies) {
        ASSERT_LE(range.first, range.last);
        for (uint32_t id = range.first; id <= range.last; ++id) {
            EXPECT_TRUE(seen.insert(id).second) << "id " << id << " in two families";
            const FuncDesc *d = describe(static_cast<uint16_t>(id));
            ASSERT_NE(d, nullptr) << id;
            EXPECT_EQ(d->family, range.family) << id;
            EXPECT_STREQ(d->name, range.rows[id - range.first].name) << id;
            ++rows;
        }
    }
    EXPECT_EQ(rows, 1038u);
    // The families whose entry points exist have a layout for every named row that the library
    // exports; the recorded error kind follows the family.
    EXPECT_EQ(describe(2016)->error, ErrorKind::Gl);
    EXPECT_EQ(describe(1022)->error, ErrorKind::Egl);
    EXPECT_EQ(describe(6015)->error, ErrorKind::Cl);
    EXPECT_EQ(describe(1503)->error, ErrorKind::None);
    for (uint32_t id = 2001; id <= 2142; ++id)
        EXPECT_TRUE(describe(static_cast<uint16_t>(id))->hasLayout) << id;
}

} // namespace
} // namespace kv::api
