/* An OpenCL program that moves data every way the API offers and checks every result: buffers
 * created from host memory, written, filled, read whole and by rectangles, a kernel with buffer and
 * value arguments (vector addition), a mapping written by the host, a buffer on host memory written
 * without blocking, an image created from pitched host memory, written and read with pitches and
 * sampled by a kernel, and a non-blocking read completed through its event.
 *
 *   cl_program MANIFEST [native]
 *
 * With `native`, a native kernel (a function of this program) runs on a buffer as well.
 *
 * MANIFEST receives every block of bytes the program gave to the device or got back from it, each
 * as {function id (u16), length (u32), bytes}, for the test to find in the trace. Exits 0 when every
 * result is right, 1 (with a message) otherwise, 77 without an OpenCL device. */
#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static FILE *g_manifest;
static int g_failures;

static void note(uint16_t id, const void *bytes, uint32_t length) {
    fwrite(&id, 2, 1, g_manifest);
    fwrite(&length, 4, 1, g_manifest);
    fwrite(bytes, 1, length, g_manifest);
}

#define CHECK(call)                                                                                          \
    do {                                                                                                     \
        cl_int status_ = (call);                                                                             \
        if (status_ != CL_SUCCESS) {                                                                         \
            fprintf(stderr, "%s:%d: %s gave %d\n", __FILE__, __LINE__, #call, status_);                      \
            exit(1);                                                                                         \
        }                                                                                                    \
    } while (0)

static void expect(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "wrong result: %s\n", what);
        ++g_failures;
    }
}

static const char *kSource =
    "__kernel void add(__global const float *a, __global const float *b, __global float *c, float scale,\n"
    "                  ulong bias) {\n"
    "    size_t i = get_global_id(0);\n"
    "    float s = scale + (float)((bias >> 40) & 0xff) - 3.0f + (float)(bias & 0xffffffff) - 1.0f;\n"
    "    c[i] = (a[i] + b[i]) * s;\n"
    "}\n";

static const char *kSamplingSource =
    "__kernel void fetch(__read_only image2d_t image, sampler_t sampler, __global uchar4 *out) {\n"
    "    int x = get_global_id(0), y = get_global_id(1);\n"
    "    float4 v = read_imagef(image, sampler, (int2)(x, y));\n"
    "    out[y * get_global_size(0) + x] = convert_uchar4_sat_rte(v * 255.0f);\n"
    "}\n";

enum { N = 4096 };

/* A native kernel: a function of this program, which doubles the floats of the buffer it is given. */
struct NativeArgs {
    float *data;
    cl_uint count;
};

static void doubleAll(void *argument) {
    struct NativeArgs *args = argument;
    for (cl_uint i = 0; i < args->count; ++i)
        args->data[i] *= 2.0f;
}

/* Runs a native kernel on a buffer and checks what it did, where the device runs them. */
static void runNative(cl_context context, cl_device_id device, cl_command_queue queue) {
    cl_device_exec_capabilities caps = 0;
    CHECK(clGetDeviceInfo(device, CL_DEVICE_EXECUTION_CAPABILITIES, sizeof(caps), &caps, NULL));
    if (!(caps & CL_EXEC_NATIVE_KERNEL)) return;
    float values[16];
    for (int i = 0; i < 16; ++i)
        values[i] = (float)i;
    cl_int status;
    cl_mem buffer =
        clCreateBuffer(context, CL_MEM_READ_WRITE | CL_MEM_COPY_HOST_PTR, sizeof(values), values, &status);
    CHECK(status);
    struct NativeArgs args = {NULL, 16};
    const void *where = &args.data;
    CHECK(clEnqueueNativeKernel(queue, doubleAll, &args, sizeof(args), 1, &buffer, &where, 0, NULL, NULL));
    float back[16];
    CHECK(clEnqueueReadBuffer(queue, buffer, CL_TRUE, 0, sizeof(back), back, 0, NULL, NULL));
    for (int i = 0; i < 16; ++i)
        expect(back[i] == 2.0f * (float)i, "a native kernel doubled the buffer");
    clReleaseMemObject(buffer);
}

int main(int argc, char **argv) {
    if (argc != 2 && !(argc == 3 && strcmp(argv[2], "native") == 0)) {
        fprintf(stderr, "usage: cl_program MANIFEST [native]\n");
        return 2;
    }
    cl_platform_id platform;
    cl_uint platforms = 0;
    if (clGetPlatformIDs(1, &platform, &platforms) != CL_SUCCESS || platforms == 0) return 77;
    cl_device_id device;
    if (clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 1, &device, NULL) != CL_SUCCESS) return 77;
    g_manifest = fopen(argv[1], "wb");
    if (!g_manifest) return 2;

    /* An info query without a size location: the record holds the name with its terminator, not
     * the whole buffer. */
    char name[1024];
    CHECK(clGetPlatformInfo(platform, CL_PLATFORM_NAME, sizeof(name), name, NULL));
    note(6002, name, (uint32_t)strlen(name) + 1);

    cl_int status;
    /* The platform named in the properties, as the loader needs it to find the driver. */
    const cl_context_properties properties[] = {CL_CONTEXT_PLATFORM, (cl_context_properties)platform, 0};
    cl_context context = clCreateContext(properties, 1, &device, NULL, NULL, &status);
    CHECK(status);
    /* No errcode_ret: the library must not write through a null pointer. */
    cl_command_queue queue = clCreateCommandQueue(context, device, 0, NULL);
    expect(queue != NULL, "a command queue");

    /* The program: its source and the kernel's arguments. */
    size_t length = strlen(kSource);
    cl_program program = clCreateProgramWithSource(context, 1, &kSource, &length, &status);
    CHECK(status);
    CHECK(clBuildProgram(program, 1, &device, "", NULL, NULL));
    cl_kernel kernel = clCreateKernel(program, "add", &status);
    CHECK(status);

    static float a[N], b[N], c[N];
    for (int i = 0; i < N; ++i) {
        a[i] = (float)i * 0.5f;
        b[i] = (float)(N - i);
    }
    /* a: created from host memory; b: written; c: filled, then computed. */
    cl_mem bufA = clCreateBuffer(context, CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR, sizeof(a), a, &status);
    CHECK(status);
    note(6015, a, sizeof(a));
    cl_mem bufB = clCreateBuffer(context, CL_MEM_READ_ONLY, sizeof(b), NULL, &status);
    CHECK(status);
    cl_mem bufC = clCreateBuffer(context, CL_MEM_READ_WRITE, sizeof(c), NULL, &status);
    CHECK(status);
    CHECK(clEnqueueWriteBuffer(queue, bufB, CL_TRUE, 0, sizeof(b), b, 0, NULL, NULL));
    note(6056, b, sizeof(b));
    const float pattern[2] = {-1.0f, -2.0f};
    CHECK(clEnqueueFillBuffer(queue, bufC, pattern, sizeof(pattern), 0, sizeof(c), 0, NULL, NULL));
    note(6084, pattern, sizeof(pattern));
    CHECK(clEnqueueReadBuffer(queue, bufC, CL_TRUE, 0, sizeof(c), c, 0, NULL, NULL));
    note(6054, c, sizeof(c));
    expect(c[0] == -1.0f && c[1] == -2.0f && c[N - 1] == -2.0f, "the filled buffer");

    const float scale = 2.0f;
    CHECK(clSetKernelArg(kernel, 0, sizeof(cl_mem), &bufA));
    note(6041, &bufA, sizeof(bufA));
    CHECK(clSetKernelArg(kernel, 1, sizeof(cl_mem), &bufB));
    CHECK(clSetKernelArg(kernel, 2, sizeof(cl_mem), &bufC));
    CHECK(clSetKernelArg(kernel, 3, sizeof(float), &scale));
    note(6041, &scale, sizeof(scale));
    /* A value as wide as a handle that is none: passed on as its bytes (the kernel's scale is right
     * only with these). */
    const cl_ulong bias = (3ull << 40) | 1;
    CHECK(clSetKernelArg(kernel, 4, sizeof(bias), &bias));
    note(6041, &bias, sizeof(bias));
    /* A bad argument: the driver's status reaches the program unchanged. */
    expect(clSetKernelArg(kernel, 3, 0, &scale) == CL_INVALID_ARG_SIZE, "an argument of size 0 refused");
    size_t global = N, local = 64;
    cl_event done;
    CHECK(clEnqueueNDRangeKernel(queue, kernel, 1, NULL, &global, &local, 0, NULL, &done));
    CHECK(clWaitForEvents(1, &done));
    cl_int execution = 0;
    CHECK(clGetEventInfo(done, CL_EVENT_COMMAND_EXECUTION_STATUS, sizeof(execution), &execution, NULL));
    expect(execution == CL_COMPLETE, "the kernel's event complete");
    CHECK(clReleaseEvent(done));

    /* A non-blocking read, completed through its event. */
    memset(c, 0, sizeof(c));
    cl_event readDone;
    CHECK(clEnqueueReadBuffer(queue, bufC, CL_FALSE, 0, sizeof(c), c, 0, NULL, &readDone));
    CHECK(clWaitForEvents(1, &readDone));
    CHECK(clReleaseEvent(readDone));
    note(6090, c, sizeof(c));
    int sums = 1;
    for (int i = 0; i < N; ++i)
        sums &= c[i] == (a[i] + b[i]) * scale;
    expect(sums, "the vector addition");

    /* Rectangles: an 8x4 block at (4 bytes, row 2) of a 64x16-byte buffer, to and from host memory
     * with a row pitch of its own. */
    static unsigned char rectHost[32 * 8], rectBack[32 * 8];
    for (size_t i = 0; i < sizeof(rectHost); ++i)
        rectHost[i] = (unsigned char)(i * 7 + 3);
    cl_mem bufR = clCreateBuffer(context, CL_MEM_READ_WRITE, 64 * 16, NULL, &status);
    CHECK(status);
    const size_t bufferOrigin[3] = {4, 2, 0}, hostOrigin[3] = {2, 1, 0}, region[3] = {8, 4, 1};
    CHECK(clEnqueueWriteBufferRect(queue, bufR, CL_TRUE, bufferOrigin, hostOrigin, region, 64, 0, 32, 0,
                                   rectHost, 0, NULL, NULL));
    /* The span the rectangle takes in host memory: from the host pointer to its last byte. */
    note(6057, rectHost, 1 * 32 + 2 + 3 * 32 + 8);
    memset(rectBack, 0xEE, sizeof(rectBack));
    CHECK(clEnqueueReadBufferRect(queue, bufR, CL_TRUE, bufferOrigin, hostOrigin, region, 64, 0, 32, 0,
                                  rectBack, 0, NULL, NULL));
    note(6055, rectBack, 1 * 32 + 2 + 3 * 32 + 8);
    int rectOk = 1;
    for (int y = 0; y < 4; ++y)
        rectOk &= memcmp(rectBack + (1 + y) * 32 + 2, rectHost + (1 + y) * 32 + 2, 8) == 0;
    expect(rectOk, "the rectangle read back");

    /* A mapping written by the host, then read back. */
    status = CL_SUCCESS;
    unsigned char *mapped = (unsigned char *)clEnqueueMapBuffer(queue, bufR, CL_TRUE, CL_MAP_WRITE, 0, 256, 0,
                                                                NULL, NULL, &status);
    CHECK(status);
    for (int i = 0; i < 256; ++i)
        mapped[i] = (unsigned char)(255 - i);
    note(6067, mapped, 256);
    cl_event unmapped;
    CHECK(clEnqueueUnmapMemObject(queue, bufR, mapped, 0, NULL, &unmapped));
    CHECK(clWaitForEvents(1, &unmapped));
    CHECK(clReleaseEvent(unmapped));
    unsigned char first[256];
    CHECK(clEnqueueReadBuffer(queue, bufR, CL_TRUE, 0, 256, first, 0, NULL, NULL));
    note(6054, first, 256);
    int mapOk = 1;
    for (int i = 0; i < 256; ++i)
        mapOk &= first[i] == (unsigned char)(255 - i);
    expect(mapOk, "the mapped writes");

    /* A buffer that uses host memory, half of it written without blocking and waited for through
     * the queue. */
    static float used[256], later[128], usedBack[256];
    for (int i = 0; i < 256; ++i)
        used[i] = (float)i * 3.0f;
    for (int i = 0; i < 128; ++i)
        later[i] = (float)i * -0.25f;
    cl_mem bufU =
        clCreateBuffer(context, CL_MEM_READ_WRITE | CL_MEM_USE_HOST_PTR, sizeof(used), used, &status);
    CHECK(status);
    note(6015, used, sizeof(used));
    CHECK(clEnqueueWriteBuffer(queue, bufU, CL_FALSE, 0, sizeof(later), later, 0, NULL, NULL));
    note(6056, later, sizeof(later));
    CHECK(clFinish(queue));
    CHECK(clEnqueueReadBuffer(queue, bufU, CL_TRUE, 0, sizeof(usedBack), usedBack, 0, NULL, NULL));
    note(6054, usedBack, sizeof(usedBack));
    expect(memcmp(usedBack, later, sizeof(later)) == 0 && usedBack[128] == 384.0f && usedBack[255] == 765.0f,
           "the buffer on host memory");
    CHECK(clReleaseMemObject(bufU));

    /* An RGBA8 image of 16x8 from host rows of 80 bytes (16 bytes of padding each). */
    cl_bool images = CL_FALSE;
    clGetDeviceInfo(device, CL_DEVICE_IMAGE_SUPPORT, sizeof(images), &images, NULL);
    if (images) {
        static unsigned char pixels[80 * 8], readBack[96 * 8], update[4 * 4 * 4];
        for (size_t i = 0; i < sizeof(pixels); ++i)
            pixels[i] = (unsigned char)(i * 13 + 1);
        cl_image_format format = {CL_RGBA, CL_UNORM_INT8};
        cl_image_desc desc;
        memset(&desc, 0, sizeof(desc));
        desc.image_type = CL_MEM_OBJECT_IMAGE2D;
        desc.image_width = 16;
        desc.image_height = 8;
        desc.image_row_pitch = 80;
        cl_mem image =
            clCreateImage(context, CL_MEM_READ_WRITE | CL_MEM_COPY_HOST_PTR, &format, &desc, pixels, &status);
        CHECK(status);
        note(6078, pixels, 80 * 7 + 64);
        for (size_t i = 0; i < sizeof(update); ++i)
            update[i] = (unsigned char)(200 + i);
        const size_t at[3] = {2, 3, 0}, square[3] = {4, 4, 1}, whole[3] = {16, 8, 1}, zero[3] = {0, 0, 0};
        CHECK(clEnqueueWriteImage(queue, image, CL_TRUE, at, square, 16, 0, update, 0, NULL, NULL));
        note(6061, update, sizeof(update));
        memset(readBack, 0, sizeof(readBack));
        CHECK(clEnqueueReadImage(queue, image, CL_TRUE, zero, whole, 96, 0, readBack, 0, NULL, NULL));
        note(6060, readBack, 96 * 7 + 64);
        int imageOk = 1;
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 16; ++x) {
                const unsigned char *want = (x >= 2 && x < 6 && y >= 3 && y < 7)
                                                ? update + (y - 3) * 16 + (x - 2) * 4
                                                : pixels + y * 80 + x * 4;
                imageOk &= memcmp(readBack + y * 96 + x * 4, want, 4) == 0;
            }
        expect(imageOk, "the image read back");

        /* A kernel that samples the image: an image and a sampler among its arguments. */
        cl_program sampling = clCreateProgramWithSource(context, 1, &kSamplingSource, NULL, &status);
        CHECK(status);
        CHECK(clBuildProgram(sampling, 1, &device, "", NULL, NULL));
        cl_kernel fetch = clCreateKernel(sampling, "fetch", &status);
        CHECK(status);
        cl_sampler sampler =
            clCreateSampler(context, CL_FALSE, CL_ADDRESS_CLAMP_TO_EDGE, CL_FILTER_NEAREST, &status);
        CHECK(status);
        cl_mem texels = clCreateBuffer(context, CL_MEM_WRITE_ONLY, 16 * 8 * 4, NULL, &status);
        CHECK(status);
        CHECK(clSetKernelArg(fetch, 0, sizeof(cl_mem), &image));
        CHECK(clSetKernelArg(fetch, 1, sizeof(cl_sampler), &sampler));
        CHECK(clSetKernelArg(fetch, 2, sizeof(cl_mem), &texels));
        const size_t pixelsWide[2] = {16, 8};
        CHECK(clEnqueueNDRangeKernel(queue, fetch, 2, NULL, pixelsWide, NULL, 0, NULL, NULL));
        static unsigned char sampled[16 * 8 * 4];
        CHECK(clEnqueueReadBuffer(queue, texels, CL_TRUE, 0, sizeof(sampled), sampled, 0, NULL, NULL));
        note(6054, sampled, sizeof(sampled));
        int sampledOk = 1;
        for (int y = 0; y < 8; ++y)
            sampledOk &= memcmp(sampled + y * 64, readBack + y * 96, 64) == 0;
        expect(sampledOk, "the sampled image");
        clReleaseMemObject(texels);
        clReleaseSampler(sampler);
        clReleaseKernel(fetch);
        clReleaseProgram(sampling);
        CHECK(clReleaseMemObject(image));
    }

    /* Bad input: an invalid handle and a null errcode_ret. */
    expect(clCreateBuffer(NULL, CL_MEM_READ_WRITE, 16, NULL, NULL) == NULL, "no buffer without a context");
    expect(clReleaseMemObject(NULL) == CL_INVALID_MEM_OBJECT, "no release of a null buffer");

    if (argc == 3) runNative(context, device, queue);

    CHECK(clFinish(queue));
    clReleaseMemObject(bufR);
    clReleaseMemObject(bufA);
    clReleaseMemObject(bufB);
    clReleaseMemObject(bufC);
    clReleaseKernel(kernel);
    clReleaseProgram(program);
    clReleaseCommandQueue(queue);
    clReleaseContext(context);
    fclose(g_manifest);
    if (g_failures) return 1;
    printf("cl_program: every result right\n");
    return 0;
}
