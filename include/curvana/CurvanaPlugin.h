/*
 * CurvanaPlugin.h: the C interface between a host application and the
 * Curvana filter module (libcurvana.so).
 *
 * The module exports exactly one function, EntryFI. The host calls it once per
 * selector with a parameter block (CvFilterRecord) of host callbacks and image
 * facts. Nothing but C types crosses this boundary, and no C++ exception ever
 * leaves the module: any failure becomes a non-zero *result.
 *
 * Conventions
 * - Four-character codes are 32-bit values whose big-endian bytes spell the
 *   characters: CV_FOURCC('v','e','r','s') == 0x76657273.
 * - Strings are UTF-8 and NUL-terminated unless a length is given.
 * - Rectangles are half-open: [left, right) x [top, bottom).
 * - 16-bit pixel values use the host range 0 ... 32768.
 * - Every callback receives the host's opaque context pointer first.
 * - CvError 0 means success; any other value is a failure.
 */
#ifndef CURVANA_PLUGIN_H
#define CURVANA_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bumped whenever the layout of CvFilterRecord or a suite changes. The module
 * refuses a record whose abiVersion differs from the one it was built with. */
#define CURVANA_ABI_VERSION 4

#define CV_FOURCC(a, b, c, d)                                                     \
    ((uint32_t)(((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) | \
                ((uint32_t)(uint8_t)(c) << 8) | (uint32_t)(uint8_t)(d)))

typedef int32_t CvError;
enum {
    cvNoErr = 0,
    cvErrParam = -50,       /* a bad argument */
    cvErrMemory = -108,     /* out of memory */
    cvErrUnsupported = -1,  /* the host does not offer this */
    cvErrAborted = -128,    /* the user cancelled */
    cvErrFilterFailed = -30 /* the filter failed; it has shown or logged why */
};

/* Selectors. Unload and Registration are additions of this interface.
 * Unload destroys the instance that the module stored in *data, so the host
 * can close the module without leaking it. Registration answers without an
 * instance and without an image (the record needs abiVersion and structSize
 * only): *data receives the address of the module's CvRegistration, which
 * stays valid while the module is loaded; pass a slot of your own, not the
 * instance's. */
enum {
    cvSelectorAbout = 0,
    cvSelectorParameters = 1,
    cvSelectorPrepare = 2,
    cvSelectorStart = 3,
    cvSelectorContinue = 4,
    cvSelectorFinish = 5,
    cvSelectorUnload = 100,
    cvSelectorRegistration = 101
};

/* Image modes of the filtered image. */
enum {
    cvModeGray = 1, /* 1 plane */
    cvModeRGB = 3,  /* 3 planes */
    cvModeCMYK = 4, /* 4 planes */
    cvModeLab = 9   /* 3 planes: L, a, b */
};

/* Alert button sets and answers. */
enum { cvButtonsOK = 0, cvButtonsOKCancel = 1, cvButtonsYesNoCancel = 2 };
enum { cvAnswerOK = 1, cvAnswerCancel = 2, cvAnswerYes = 3, cvAnswerNo = 4 };

/* Modifier-key bits reported by modifierKeys. Holding the three of bits 1-3
 * while the filter starts makes it ignore its stored preferences. */
enum {
    cvModifierCommand = 1u << 0,
    cvModifierShift = 1u << 1,
    cvModifierOption = 1u << 2,
    cvModifierControl = 1u << 3
};

typedef struct CvRect {
    int32_t left, top, right, bottom;
} CvRect;

/* Host property signature and keys. */
#define CV_PROPERTY_SIGNATURE CV_FOURCC('K', 'S', 'T', 'X')
#define CV_PROPERTY_VERSION CV_FOURCC('v', 'e', 'r', 's')   /* major in the upper 16 bits */
#define CV_PROPERTY_GPU_FLAGS CV_FOURCC('G', 'P', 'U', 'F') /* bit 7: GPU in use */
/* Non-zero: a run without the dialog starts from what the editor would open
 * with (the saved settings, with the projection model and focal length that
 * the photo's metadata decide) rather than from the saved settings alone;
 * the keys of the descriptor passed in apply over that. A descriptor that
 * sets the physical focal length or the crop factor without the focal length
 * in pixels gets the latter from them. */
#define CV_PROPERTY_FRESH_DEFAULTS CV_FOURCC('F', 'r', 's', 'h')

/* ---- Suites, acquired by name and version ---------------------------------- */

/* "Pictora Buffer Suite for Plug-ins", version 1: host-managed buffers for the
 * module's pixel cache. */
#define CV_BUFFER_SUITE_NAME "Pictora Buffer Suite for Plug-ins"
#define CV_BUFFER_SUITE_VERSION 1
typedef struct CvBufferSuite1 {
    void* (*allocate)(void* context, uint64_t size); /* NULL when refused */
    void (*release)(void* context, void* buffer);
    void* context;
} CvBufferSuite1;

/* The action-descriptor suite, version 5, named by its identifier string. */
#define CV_DESCRIPTOR_SUITE_NAME "{5C3A9E10-6B7D-4F1E-9A8C-2D4B7E6F1C03}"
#define CV_DESCRIPTOR_SUITE_VERSION 5

typedef struct CvDescriptorOpaque* CvDescriptor; /* owned by whoever made it */

enum {
    cvTypeInteger = CV_FOURCC('l', 'o', 'n', 'g'),
    cvTypeFloat = CV_FOURCC('d', 'o', 'u', 'b'),
    cvTypeBoolean = CV_FOURCC('b', 'o', 'o', 'l'),
    cvTypeEnumerated = CV_FOURCC('e', 'n', 'u', 'm'),
    cvTypeRawData = CV_FOURCC('t', 'd', 't', 'a')
};

typedef struct CvDescriptorSuite5 {
    CvError (*make)(CvDescriptor* out);
    CvError (*release)(CvDescriptor descriptor);
    CvError (*count)(CvDescriptor descriptor, uint32_t* count);
    /* key and type of the entry at index, in insertion order */
    CvError (*keyAt)(CvDescriptor descriptor, uint32_t index, uint32_t* key, uint32_t* type);
    CvError (*getInteger)(CvDescriptor descriptor, uint32_t key, int32_t* value);
    CvError (*getFloat)(CvDescriptor descriptor, uint32_t key, double* value);
    CvError (*getBoolean)(CvDescriptor descriptor, uint32_t key, uint8_t* value);
    CvError (*getEnumerated)(CvDescriptor descriptor, uint32_t key, uint32_t* type,
                             uint32_t* value);
    CvError (*getDataLength)(CvDescriptor descriptor, uint32_t key, int32_t* length);
    CvError (*getData)(CvDescriptor descriptor, uint32_t key, void* buffer, int32_t length);
    /* put replaces an existing entry of the same key in place */
    CvError (*putInteger)(CvDescriptor descriptor, uint32_t key, int32_t value);
    CvError (*putFloat)(CvDescriptor descriptor, uint32_t key, double value);
    CvError (*putBoolean)(CvDescriptor descriptor, uint32_t key, uint8_t value);
    CvError (*putEnumerated)(CvDescriptor descriptor, uint32_t key, uint32_t type, uint32_t value);
    CvError (*putData)(CvDescriptor descriptor, uint32_t key, const void* data, int32_t length);
} CvDescriptorSuite5;

/* ---- The parameter block --------------------------------------------------- */

typedef struct CvFilterRecord {
    uint32_t abiVersion; /* CURVANA_ABI_VERSION */
    uint32_t structSize; /* sizeof(CvFilterRecord) */
    void* host;          /* opaque context handed back to every callback */

    /* Host properties. */
    CvError (*getProperty)(void* host, uint32_t signature, uint32_t key, int32_t* value);

    /* Suites by name and version. acquireSuite writes a pointer to the suite's
     * function table; it stays valid until the matching releaseSuite. */
    CvError (*acquireSuite)(void* host, const char* name, int32_t version, const void** suite);
    CvError (*releaseSuite)(void* host, const char* name, int32_t version);

    /* Scripting. descriptor is the one passed in (NULL when none; owned by the
     * host). The module hands its result back through setResultDescriptor,
     * which takes ownership of a descriptor made with the suite's make. */
    CvDescriptor descriptor;
    CvError (*setResultDescriptor)(void* host, CvDescriptor result);

    /* The image. The filtered area is filterRect inside an image of
     * imageWidth x imageHeight. planes: the mode's planes, plus one when the
     * host passes a transparency (alpha) plane after them. depth is 8 or 16. */
    int32_t mode;
    int32_t depth;
    int32_t planes;
    int32_t imageWidth;
    int32_t imageHeight;
    CvRect filterRect;

    /* Source and result pixels, one plane at a time. rect lies inside
     * filterRect; rowBytes is the stride of buffer in bytes. Values are
     * uint8_t at depth 8 and uint16_t (0 ... 32768) at depth 16. */
    CvError (*readSourcePlane)(void* host, const CvRect* rect, int32_t plane, void* buffer,
                               int32_t rowBytes);
    CvError (*writeResultPlane)(void* host, const CvRect* rect, int32_t plane, const void* buffer,
                                int32_t rowBytes);

    /* Optional (NULL when the host offers planes only): every plane of rect
     * at once, interleaved. A pixel's values lie one after another in plane
     * order, pixels columnBytes apart (at least planes values), rows
     * rowBytes apart. A read leaves the bytes between pixels as they were; a
     * write ignores them. Values are as for the plane callbacks. Hosts that
     * hold their pixels interleaved save a copy per plane with these. */
    CvError (*readSourcePixels)(void* host, const CvRect* rect, void* buffer, int32_t columnBytes,
                                int32_t rowBytes);
    CvError (*writeResultPixels)(void* host, const CvRect* rect, const void* buffer,
                                 int32_t columnBytes, int32_t rowBytes);

    /* The photograph's metadata as one XMP packet (EXIF already converted to
     * XMP by the host). Copies up to capacity bytes and reports the full
     * length; call with capacity 0 to ask for the length. */
    CvError (*getXmpPacket)(void* host, char* buffer, size_t capacity, size_t* length);

    /* Progress and abort. setProgressText names the long task shown to the
     * user; progress reports done of total; abortRequested is non-zero once
     * the user asked to cancel. */
    void (*setProgressText)(void* host, const char* title, const char* message);
    void (*progress)(void* host, int64_t done, int64_t total);
    int32_t (*abortRequested)(void* host);

    /* A modal alert; returns one of the cvAnswer values. */
    int32_t (*alert)(void* host, const char* message, const char* title, int32_t buttons);

    /* Memory figures in bytes: the host's maximum space for the filter and the
     * free memory of the machine. */
    uint64_t (*maxSpace)(void* host);
    uint64_t (*freeMemory)(void* host);

    /* The host's preferences base folder (UTF-8, no trailing separator):
     * copies up to capacity bytes including the NUL, reports the full length
     * without it. */
    CvError (*preferencesBase)(void* host, char* buffer, size_t capacity, size_t* length);

    /* Current modifier-key state (cvModifier bits). */
    uint32_t (*modifierKeys)(void* host);

    /* The name of the document being filtered, as the user knows it (UTF-8,
     * e.g. the file name): copies up to capacity bytes including the NUL,
     * reports the full length without it. The editor shows it in its title. */
    CvError (*documentName)(void* host, char* buffer, size_t capacity, size_t* length);

    /* A message for the user that needs no answer (UTF-8). A run without the
     * dialog shows nothing modal: what it has to say about its input (a
     * constraint it skipped, a model it could not use) comes here. */
    void (*warning)(void* host, const char* message);
} CvFilterRecord;

/* ---- Registration ------------------------------------------------------------ */

/* One entry of the scripting terminology: a descriptor key with its value
 * type (CvDescriptorSuite5), or an enumerator with the key of its
 * enumeration as type. */
typedef struct CvTerm {
    uint32_t code;
    uint32_t type;
    const char* name; /* English */
} CvTerm;

/* What the filter declares before it is run: the images it takes and its
 * scripting terminology (see CurvanaScripting.h). */
typedef struct CvRegistration {
    uint32_t abiVersion;      /* CURVANA_ABI_VERSION of the module */
    const char* name;         /* "Curvana" */
    const char* version;      /* the module's version, "major.minor.patch" */
    int32_t hostMajorVersion; /* the host version ("vers") it runs under */
    uint32_t modes;           /* (1u << cvMode...) for every mode it takes */
    uint32_t depths;          /* (1u << bits) for every depth it takes: 8, 16 */
    int32_t maxWidth, maxHeight;
    uint32_t event; /* the class of the actions it records */
    const char* eventName;
    const CvTerm* keys; /* descriptor keys in the terminology */
    uint32_t keyCount;
    const CvTerm* enumerators;
    uint32_t enumeratorCount;
} CvRegistration;

/* The entry point. data is a pointer-sized slot the host keeps for the module
 * across calls (the module stores its instance there); result receives
 * cvNoErr or an error. */
#if defined(_WIN32)
#define CV_EXPORT __declspec(dllexport)
#else
#define CV_EXPORT __attribute__((visibility("default")))
#endif

typedef void (*CvEntryPoint)(int16_t selector, CvFilterRecord* record, intptr_t* data,
                             int16_t* result);

CV_EXPORT void EntryFI(int16_t selector, CvFilterRecord* record, intptr_t* data, int16_t* result);

#ifdef __cplusplus
}
#endif

#endif /* CURVANA_PLUGIN_H */
