// TWAIN 1.9 / 2.x declarations for the Linux ABI.
//
// Written for this data source: structures use the Linux layout (2-byte
// packing, 32-bit TW_UINT32, 64-bit pointers and handles) and every size and
// key offset is pinned by a static_assert below, so that a compiler or flag
// change that would move a field breaks the build instead of a client.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

using TW_INT8 = std::int8_t;
using TW_INT16 = std::int16_t;
using TW_INT32 = std::int32_t;
using TW_UINT8 = std::uint8_t;
using TW_UINT16 = std::uint16_t;
using TW_UINT32 = std::uint32_t;
using TW_BOOL = std::uint16_t;
using TW_HANDLE = void*;
using TW_MEMREF = void*;
using TW_UINTPTR = std::uintptr_t;

// Strings are NUL-terminated on Linux; the array sizes include the NUL and,
// for the odd-length ones, the pad byte of the historical layout.
using TW_STR32 = char[34];
using TW_STR64 = char[66];
using TW_STR128 = char[130];
using TW_STR255 = char[256];
using TW_STR1024 = char[1026];
using TW_UNI512 = std::uint16_t[512];

#pragma pack(push, 2)

struct TW_FIX32 {
    TW_INT16 Whole;
    TW_UINT16 Frac;
};

struct TW_FRAME {
    TW_FIX32 Left;
    TW_FIX32 Top;
    TW_FIX32 Right;
    TW_FIX32 Bottom;
};

struct TW_VERSION {
    TW_UINT16 MajorNum;
    TW_UINT16 MinorNum;
    TW_UINT16 Language;
    TW_UINT16 Country;
    TW_STR32 Info;
};

struct TW_IDENTITY {
    TW_UINT32 Id;
    TW_VERSION Version;
    TW_UINT16 ProtocolMajor;
    TW_UINT16 ProtocolMinor;
    TW_UINT32 SupportedGroups;
    TW_STR32 Manufacturer;
    TW_STR32 ProductFamily;
    TW_STR32 ProductName;
};

struct TW_CAPABILITY {
    TW_UINT16 Cap;
    TW_UINT16 ConType;
    TW_HANDLE hContainer;
};

struct TW_ONEVALUE {
    TW_UINT16 ItemType;
    TW_UINT32 Item;
};

struct TW_ENUMERATION {
    TW_UINT16 ItemType;
    TW_UINT32 NumItems;
    TW_UINT32 CurrentIndex;
    TW_UINT32 DefaultIndex;
    TW_UINT8 ItemList[1];
};

struct TW_ARRAY {
    TW_UINT16 ItemType;
    TW_UINT32 NumItems;
    TW_UINT8 ItemList[1];
};

struct TW_RANGE {
    TW_UINT16 ItemType;
    TW_UINT32 MinValue;
    TW_UINT32 MaxValue;
    TW_UINT32 StepSize;
    TW_UINT32 DefaultValue;
    TW_UINT32 CurrentValue;
};

struct TW_MEMORY {
    TW_UINT32 Flags;
    TW_UINT32 Length;
    TW_MEMREF TheMem;
};

struct TW_IMAGEMEMXFER {
    TW_UINT16 Compression;
    TW_UINT32 BytesPerRow;
    TW_UINT32 Columns;
    TW_UINT32 Rows;
    TW_UINT32 XOffset;
    TW_UINT32 YOffset;
    TW_UINT32 BytesWritten;
    TW_MEMORY Memory;
};

struct TW_USERINTERFACE {
    TW_BOOL ShowUI;
    TW_BOOL ModalUI;
    TW_HANDLE hParent;
};

struct TW_PENDINGXFERS {
    TW_UINT16 Count;
    union {
        TW_UINT32 EOJ;
        TW_UINT32 Reserved;
    };
};

struct TW_SETUPMEMXFER {
    TW_UINT32 MinBufSize;
    TW_UINT32 MaxBufSize;
    TW_UINT32 Preferred;
};

struct TW_SETUPFILEXFER {
    TW_STR255 FileName;
    TW_UINT16 Format;
    TW_INT16 VRefNum;
};

struct TW_SETUPFILEXFER2 {
    TW_MEMREF FileName;
    TW_UINT16 FileNameType;
    TW_UINT16 Format;
    TW_INT16 VRefNum;
    TW_UINT32 ParID;
};

struct TW_STATUS {
    TW_UINT16 ConditionCode;
    TW_UINT16 Reserved;
};

struct TW_IMAGEINFO {
    TW_FIX32 XResolution;
    TW_FIX32 YResolution;
    TW_INT32 ImageWidth;
    TW_INT32 ImageLength;
    TW_INT16 SamplesPerPixel;
    TW_INT16 BitsPerSample[8];
    TW_INT16 BitsPerPixel;
    TW_BOOL Planar;
    TW_INT16 PixelType;
    TW_UINT16 Compression;
};

struct TW_IMAGELAYOUT {
    TW_FRAME Frame;
    TW_UINT32 DocumentNumber;
    TW_UINT32 PageNumber;
    TW_UINT32 FrameNumber;
};

struct TW_EVENT {
    TW_MEMREF pEvent;
    TW_UINT16 TWMessage;
};

struct TW_CALLBACK {
    TW_MEMREF CallBackProc;
    TW_UINT32 RefCon;
    TW_INT16 Message;
};

using DSMENTRYPROC = TW_UINT16 (*)(TW_IDENTITY* pOrigin, TW_IDENTITY* pDest, TW_UINT32 DG, TW_UINT16 DAT,
                                   TW_UINT16 MSG, TW_MEMREF pData);
using DSENTRYPROC = TW_UINT16 (*)(TW_IDENTITY* pOrigin, TW_UINT32 DG, TW_UINT16 DAT, TW_UINT16 MSG,
                                  TW_MEMREF pData);
using DSM_MEMALLOCATE = TW_HANDLE (*)(TW_UINT32 size);
using DSM_MEMFREE = void (*)(TW_HANDLE handle);
using DSM_MEMLOCK = TW_MEMREF (*)(TW_HANDLE handle);
using DSM_MEMUNLOCK = void (*)(TW_HANDLE handle);

struct TW_ENTRYPOINT {
    TW_UINT32 Size;
    DSMENTRYPROC DSM_Entry;
    DSM_MEMALLOCATE DSM_MemAllocate;
    DSM_MEMFREE DSM_MemFree;
    DSM_MEMLOCK DSM_MemLock;
    DSM_MEMUNLOCK DSM_MemUnlock;
};

#pragma pack(pop)

}  // extern "C"

// ---- Layout checks -------------------------------------------------------
static_assert(sizeof(TW_FIX32) == 4);
static_assert(sizeof(TW_FRAME) == 16);
static_assert(sizeof(TW_VERSION) == 42 && offsetof(TW_VERSION, Info) == 8);
static_assert(sizeof(TW_IDENTITY) == 156);
static_assert(offsetof(TW_IDENTITY, Version) == 4 && offsetof(TW_IDENTITY, ProtocolMajor) == 46 &&
              offsetof(TW_IDENTITY, SupportedGroups) == 50 && offsetof(TW_IDENTITY, Manufacturer) == 54 &&
              offsetof(TW_IDENTITY, ProductFamily) == 88 && offsetof(TW_IDENTITY, ProductName) == 122);
static_assert(sizeof(TW_CAPABILITY) == 12 && offsetof(TW_CAPABILITY, hContainer) == 4);
static_assert(sizeof(TW_ONEVALUE) == 6 && offsetof(TW_ONEVALUE, Item) == 2);
static_assert(offsetof(TW_ENUMERATION, NumItems) == 2 && offsetof(TW_ENUMERATION, CurrentIndex) == 6 &&
              offsetof(TW_ENUMERATION, DefaultIndex) == 10 && offsetof(TW_ENUMERATION, ItemList) == 14);
static_assert(offsetof(TW_ARRAY, NumItems) == 2 && offsetof(TW_ARRAY, ItemList) == 6);
static_assert(sizeof(TW_RANGE) == 22);
static_assert(sizeof(TW_MEMORY) == 16 && offsetof(TW_MEMORY, TheMem) == 8);
static_assert(sizeof(TW_IMAGEMEMXFER) == 42 && offsetof(TW_IMAGEMEMXFER, BytesWritten) == 22 &&
              offsetof(TW_IMAGEMEMXFER, Memory) == 26);
static_assert(sizeof(TW_USERINTERFACE) == 12 && offsetof(TW_USERINTERFACE, hParent) == 4);
static_assert(sizeof(TW_PENDINGXFERS) == 6 && offsetof(TW_PENDINGXFERS, EOJ) == 2);
static_assert(sizeof(TW_SETUPMEMXFER) == 12);
static_assert(sizeof(TW_SETUPFILEXFER) == 260 && offsetof(TW_SETUPFILEXFER, Format) == 256);
static_assert(sizeof(TW_SETUPFILEXFER2) == 18 && offsetof(TW_SETUPFILEXFER2, FileNameType) == 8 &&
              offsetof(TW_SETUPFILEXFER2, Format) == 10 && offsetof(TW_SETUPFILEXFER2, VRefNum) == 12 &&
              offsetof(TW_SETUPFILEXFER2, ParID) == 14);
static_assert(sizeof(TW_STATUS) == 4);
static_assert(sizeof(TW_IMAGEINFO) == 42 && offsetof(TW_IMAGEINFO, SamplesPerPixel) == 16 &&
              offsetof(TW_IMAGEINFO, BitsPerPixel) == 34 && offsetof(TW_IMAGEINFO, PixelType) == 38);
static_assert(sizeof(TW_IMAGELAYOUT) == 28 && offsetof(TW_IMAGELAYOUT, DocumentNumber) == 16);
static_assert(sizeof(TW_CALLBACK) == 14 && offsetof(TW_CALLBACK, Message) == 12);
static_assert(sizeof(TW_ENTRYPOINT) == 44 && offsetof(TW_ENTRYPOINT, DSM_Entry) == 4 &&
              offsetof(TW_ENTRYPOINT, DSM_MemUnlock) == 36);

// ---- Constants -----------------------------------------------------------
// Kept as constexpr values (not macros) so they never collide with a client's
// own TWAIN header in the same translation unit of a test or tool.
namespace twain {

// Data groups and identity flags.
inline constexpr TW_UINT32 DG_CONTROL = 0x0001;
inline constexpr TW_UINT32 DG_IMAGE = 0x0002;
inline constexpr TW_UINT32 DG_AUDIO = 0x0004;
inline constexpr TW_UINT32 DF_DSM2 = 0x10000000;
inline constexpr TW_UINT32 DF_APP2 = 0x20000000;
inline constexpr TW_UINT32 DF_DS2 = 0x40000000;

// Data argument types.
inline constexpr TW_UINT16 DAT_NULL = 0x0000;
inline constexpr TW_UINT16 DAT_CAPABILITY = 0x0001;
inline constexpr TW_UINT16 DAT_EVENT = 0x0002;
inline constexpr TW_UINT16 DAT_IDENTITY = 0x0003;
inline constexpr TW_UINT16 DAT_PARENT = 0x0004;
inline constexpr TW_UINT16 DAT_PENDINGXFERS = 0x0005;
inline constexpr TW_UINT16 DAT_SETUPMEMXFER = 0x0006;
inline constexpr TW_UINT16 DAT_SETUPFILEXFER = 0x0007;
inline constexpr TW_UINT16 DAT_STATUS = 0x0008;
inline constexpr TW_UINT16 DAT_USERINTERFACE = 0x0009;
inline constexpr TW_UINT16 DAT_XFERGROUP = 0x000a;
inline constexpr TW_UINT16 DAT_CUSTOMDSDATA = 0x000c;
inline constexpr TW_UINT16 DAT_DEVICEEVENT = 0x000d;
inline constexpr TW_UINT16 DAT_CALLBACK = 0x0010;
inline constexpr TW_UINT16 DAT_IMAGEINFO = 0x0101;
inline constexpr TW_UINT16 DAT_IMAGELAYOUT = 0x0102;
inline constexpr TW_UINT16 DAT_IMAGEMEMXFER = 0x0103;
inline constexpr TW_UINT16 DAT_IMAGENATIVEXFER = 0x0104;
inline constexpr TW_UINT16 DAT_IMAGEFILEXFER = 0x0105;
inline constexpr TW_UINT16 DAT_CIECOLOR = 0x0106;
inline constexpr TW_UINT16 DAT_GRAYRESPONSE = 0x0107;
inline constexpr TW_UINT16 DAT_RGBRESPONSE = 0x0108;
inline constexpr TW_UINT16 DAT_JPEGCOMPRESSION = 0x0109;
inline constexpr TW_UINT16 DAT_PALETTE8 = 0x010a;
inline constexpr TW_UINT16 DAT_EXTIMAGEINFO = 0x010b;
inline constexpr TW_UINT16 DAT_SETUPFILEXFER2 = 0x0301;
inline constexpr TW_UINT16 DAT_ENTRYPOINT = 0x0403;

// Messages.
inline constexpr TW_UINT16 MSG_NULL = 0x0000;
inline constexpr TW_UINT16 MSG_GET = 0x0001;
inline constexpr TW_UINT16 MSG_GETCURRENT = 0x0002;
inline constexpr TW_UINT16 MSG_GETDEFAULT = 0x0003;
inline constexpr TW_UINT16 MSG_GETFIRST = 0x0004;
inline constexpr TW_UINT16 MSG_GETNEXT = 0x0005;
inline constexpr TW_UINT16 MSG_SET = 0x0006;
inline constexpr TW_UINT16 MSG_RESET = 0x0007;
inline constexpr TW_UINT16 MSG_QUERYSUPPORT = 0x0008;
inline constexpr TW_UINT16 MSG_XFERREADY = 0x0101;
inline constexpr TW_UINT16 MSG_CLOSEDSREQ = 0x0102;
inline constexpr TW_UINT16 MSG_CLOSEDSOK = 0x0103;
inline constexpr TW_UINT16 MSG_DEVICEEVENT = 0x0104;
inline constexpr TW_UINT16 MSG_OPENDSM = 0x0301;
inline constexpr TW_UINT16 MSG_CLOSEDSM = 0x0302;
inline constexpr TW_UINT16 MSG_OPENDS = 0x0401;
inline constexpr TW_UINT16 MSG_CLOSEDS = 0x0402;
inline constexpr TW_UINT16 MSG_USERSELECT = 0x0403;
inline constexpr TW_UINT16 MSG_DISABLEDS = 0x0501;
inline constexpr TW_UINT16 MSG_ENABLEDS = 0x0502;
inline constexpr TW_UINT16 MSG_ENABLEDSUIONLY = 0x0503;
inline constexpr TW_UINT16 MSG_PROCESSEVENT = 0x0601;
inline constexpr TW_UINT16 MSG_ENDXFER = 0x0701;
inline constexpr TW_UINT16 MSG_STOPFEEDER = 0x0702;
inline constexpr TW_UINT16 MSG_REGISTER_CALLBACK = 0x0902;

// Return codes.
inline constexpr TW_UINT16 TWRC_SUCCESS = 0;
inline constexpr TW_UINT16 TWRC_FAILURE = 1;
inline constexpr TW_UINT16 TWRC_CHECKSTATUS = 2;
inline constexpr TW_UINT16 TWRC_CANCEL = 3;
inline constexpr TW_UINT16 TWRC_DSEVENT = 4;
inline constexpr TW_UINT16 TWRC_NOTDSEVENT = 5;
inline constexpr TW_UINT16 TWRC_XFERDONE = 6;
inline constexpr TW_UINT16 TWRC_ENDOFLIST = 7;
inline constexpr TW_UINT16 TWRC_INFONOTSUPPORTED = 8;
inline constexpr TW_UINT16 TWRC_DATANOTAVAILABLE = 9;

// Condition codes.
inline constexpr TW_UINT16 TWCC_SUCCESS = 0;
inline constexpr TW_UINT16 TWCC_BUMMER = 1;
inline constexpr TW_UINT16 TWCC_LOWMEMORY = 2;
inline constexpr TW_UINT16 TWCC_NODS = 3;
inline constexpr TW_UINT16 TWCC_MAXCONNECTIONS = 4;
inline constexpr TW_UINT16 TWCC_OPERATIONERROR = 5;
inline constexpr TW_UINT16 TWCC_BADCAP = 6;
inline constexpr TW_UINT16 TWCC_BADPROTOCOL = 9;
inline constexpr TW_UINT16 TWCC_BADVALUE = 10;
inline constexpr TW_UINT16 TWCC_SEQERROR = 11;
inline constexpr TW_UINT16 TWCC_BADDEST = 12;
inline constexpr TW_UINT16 TWCC_CAPUNSUPPORTED = 13;
inline constexpr TW_UINT16 TWCC_CAPBADOPERATION = 14;
inline constexpr TW_UINT16 TWCC_CAPSEQERROR = 15;
inline constexpr TW_UINT16 TWCC_DENIED = 16;
inline constexpr TW_UINT16 TWCC_FILEEXISTS = 17;
inline constexpr TW_UINT16 TWCC_FILENOTFOUND = 18;
inline constexpr TW_UINT16 TWCC_NOTEMPTY = 19;
inline constexpr TW_UINT16 TWCC_PAPERJAM = 20;
inline constexpr TW_UINT16 TWCC_PAPERDOUBLEFEED = 21;
inline constexpr TW_UINT16 TWCC_FILEWRITEERROR = 22;
inline constexpr TW_UINT16 TWCC_CHECKDEVICEONLINE = 23;

// Container types.
inline constexpr TW_UINT16 TWON_ARRAY = 3;
inline constexpr TW_UINT16 TWON_ENUMERATION = 4;
inline constexpr TW_UINT16 TWON_ONEVALUE = 5;
inline constexpr TW_UINT16 TWON_RANGE = 6;
inline constexpr TW_UINT16 TWON_DONTCARE16 = 0xffff;

// Item types.
inline constexpr TW_UINT16 TWTY_INT8 = 0x0000;
inline constexpr TW_UINT16 TWTY_INT16 = 0x0001;
inline constexpr TW_UINT16 TWTY_INT32 = 0x0002;
inline constexpr TW_UINT16 TWTY_UINT8 = 0x0003;
inline constexpr TW_UINT16 TWTY_UINT16 = 0x0004;
inline constexpr TW_UINT16 TWTY_UINT32 = 0x0005;
inline constexpr TW_UINT16 TWTY_BOOL = 0x0006;
inline constexpr TW_UINT16 TWTY_FIX32 = 0x0007;
inline constexpr TW_UINT16 TWTY_FRAME = 0x0008;
inline constexpr TW_UINT16 TWTY_STR32 = 0x0009;
inline constexpr TW_UINT16 TWTY_STR64 = 0x000a;
inline constexpr TW_UINT16 TWTY_STR128 = 0x000b;
inline constexpr TW_UINT16 TWTY_STR255 = 0x000c;
inline constexpr TW_UINT16 TWTY_STR1024 = 0x000d;
inline constexpr TW_UINT16 TWTY_UNI512 = 0x000e;
inline constexpr TW_UINT16 TWTY_HANDLE = 0x000f;

// Bytes one item of a type takes in a container (TW_STR255 as the Linux
// layout stores it); 0 for a type that has no fixed size.
constexpr std::size_t itemSize(TW_UINT16 itemType)
{
    switch (itemType) {
    case TWTY_INT8:
    case TWTY_UINT8: return 1;
    case TWTY_INT16:
    case TWTY_UINT16:
    case TWTY_BOOL: return 2;
    case TWTY_INT32:
    case TWTY_UINT32:
    case TWTY_FIX32: return 4;
    case TWTY_FRAME: return 16;
    case TWTY_STR32: return 34;
    case TWTY_STR64: return 66;
    case TWTY_STR128: return 130;
    case TWTY_STR255: return 256;
    default: return 0;
    }
}

// Query-support flags.
inline constexpr TW_INT32 TWQC_GET = 0x0001;
inline constexpr TW_INT32 TWQC_SET = 0x0002;
inline constexpr TW_INT32 TWQC_GETDEFAULT = 0x0004;
inline constexpr TW_INT32 TWQC_GETCURRENT = 0x0008;
inline constexpr TW_INT32 TWQC_RESET = 0x0010;

// Capabilities.
inline constexpr TW_UINT16 CAP_XFERCOUNT = 0x0001;
inline constexpr TW_UINT16 ICAP_COMPRESSION = 0x0100;
inline constexpr TW_UINT16 ICAP_PIXELTYPE = 0x0101;
inline constexpr TW_UINT16 ICAP_UNITS = 0x0102;
inline constexpr TW_UINT16 ICAP_XFERMECH = 0x0103;
inline constexpr TW_UINT16 CAP_AUTHOR = 0x1000;
inline constexpr TW_UINT16 CAP_CAPTION = 0x1001;
inline constexpr TW_UINT16 CAP_FEEDERENABLED = 0x1002;
inline constexpr TW_UINT16 CAP_FEEDERLOADED = 0x1003;
inline constexpr TW_UINT16 CAP_TIMEDATE = 0x1004;
inline constexpr TW_UINT16 CAP_SUPPORTEDCAPS = 0x1005;
inline constexpr TW_UINT16 CAP_EXTENDEDCAPS = 0x1006;
inline constexpr TW_UINT16 CAP_AUTOFEED = 0x1007;
inline constexpr TW_UINT16 CAP_INDICATORS = 0x100b;
inline constexpr TW_UINT16 CAP_UICONTROLLABLE = 0x100e;
inline constexpr TW_UINT16 CAP_DEVICEONLINE = 0x100f;
inline constexpr TW_UINT16 CAP_ENABLEDSUIONLY = 0x1014;
inline constexpr TW_UINT16 ICAP_AUTOBRIGHT = 0x1100;
inline constexpr TW_UINT16 ICAP_BRIGHTNESS = 0x1101;
inline constexpr TW_UINT16 ICAP_CONTRAST = 0x1103;
inline constexpr TW_UINT16 ICAP_GAMMA = 0x1108;
inline constexpr TW_UINT16 ICAP_IMAGEFILEFORMAT = 0x110c;
inline constexpr TW_UINT16 ICAP_ORIENTATION = 0x1110;
inline constexpr TW_UINT16 ICAP_PHYSICALWIDTH = 0x1111;
inline constexpr TW_UINT16 ICAP_PHYSICALHEIGHT = 0x1112;
inline constexpr TW_UINT16 ICAP_FRAMES = 0x1114;
inline constexpr TW_UINT16 ICAP_XNATIVERESOLUTION = 0x1116;
inline constexpr TW_UINT16 ICAP_YNATIVERESOLUTION = 0x1117;
inline constexpr TW_UINT16 ICAP_XRESOLUTION = 0x1118;
inline constexpr TW_UINT16 ICAP_YRESOLUTION = 0x1119;
inline constexpr TW_UINT16 ICAP_MAXFRAMES = 0x111a;
inline constexpr TW_UINT16 ICAP_BITORDER = 0x111c;
inline constexpr TW_UINT16 ICAP_PIXELFLAVOR = 0x111f;
inline constexpr TW_UINT16 ICAP_PLANARCHUNKY = 0x1120;
inline constexpr TW_UINT16 ICAP_SUPPORTEDSIZES = 0x1122;
inline constexpr TW_UINT16 ICAP_XSCALING = 0x1124;
inline constexpr TW_UINT16 ICAP_YSCALING = 0x1125;
inline constexpr TW_UINT16 ICAP_BITDEPTH = 0x112b;
inline constexpr TW_UINT16 ICAP_UNDEFINEDIMAGESIZE = 0x112d;
inline constexpr TW_UINT16 ICAP_MINIMUMHEIGHT = 0x1130;
inline constexpr TW_UINT16 ICAP_MINIMUMWIDTH = 0x1131;
inline constexpr TW_UINT16 ICAP_JPEGQUALITY = 0x1153;

// Capability values.
inline constexpr TW_UINT16 TWPT_BW = 0;
inline constexpr TW_UINT16 TWPT_GRAY = 1;
inline constexpr TW_UINT16 TWPT_RGB = 2;
inline constexpr TW_UINT16 TWPT_PALETTE = 3;
inline constexpr TW_UINT16 TWUN_INCHES = 0;
inline constexpr TW_UINT16 TWUN_CENTIMETERS = 1;
inline constexpr TW_UINT16 TWUN_PIXELS = 5;
inline constexpr TW_UINT16 TWSX_NATIVE = 0;
inline constexpr TW_UINT16 TWSX_FILE = 1;
inline constexpr TW_UINT16 TWSX_MEMORY = 2;
inline constexpr TW_UINT16 TWSX_FILE2 = 3;
inline constexpr TW_UINT16 TWFF_TIFF = 0;
inline constexpr TW_UINT16 TWFF_PICT = 1;
inline constexpr TW_UINT16 TWFF_BMP = 2;
inline constexpr TW_UINT16 TWFF_XBM = 3;
inline constexpr TW_UINT16 TWFF_JFIF = 4;
inline constexpr TW_UINT16 TWFF_PNG = 7;
inline constexpr TW_UINT16 TWCP_NONE = 0;
inline constexpr TW_UINT16 TWPC_CHUNKY = 0;
inline constexpr TW_UINT16 TWPC_PLANAR = 1;
inline constexpr TW_UINT16 TWPF_CHOCOLATE = 0;
inline constexpr TW_UINT16 TWPF_VANILLA = 1;
inline constexpr TW_UINT16 TWBO_LSBFIRST = 0;
inline constexpr TW_UINT16 TWBO_MSBFIRST = 1;

// Identity.
inline constexpr TW_UINT16 TWLG_USA = 13;
inline constexpr TW_UINT16 TWCY_USA = 1;

// Memory-transfer flags.
inline constexpr TW_UINT32 TWMF_APPOWNS = 0x0001;
inline constexpr TW_UINT32 TWMF_DSMOWNS = 0x0002;
inline constexpr TW_UINT32 TWMF_DSOWNS = 0x0004;
inline constexpr TW_UINT32 TWMF_POINTER = 0x0008;
inline constexpr TW_UINT32 TWMF_HANDLE = 0x0010;

}  // namespace twain
