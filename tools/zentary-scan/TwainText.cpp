#include "TwainText.h"

#include <cstdio>
#include <utility>

#include "twain/twain.h"

namespace zentary {

namespace {

using namespace twain;

struct Named {
    std::uint32_t value;
    const char* name;
};

template <std::size_t N>
const char* lookup(const Named (&table)[N], std::uint32_t value)
{
    for (const Named& entry : table)
        if (entry.value == value) return entry.name;
    return nullptr;
}

std::string hex(const char* prefix, std::uint32_t value)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%s0x%04X", prefix, static_cast<unsigned>(value));
    return text;
}

const Named sConditionCodes[] = {
    {TWCC_SUCCESS, "TWCC_SUCCESS"},
    {TWCC_BUMMER, "TWCC_BUMMER"},
    {TWCC_LOWMEMORY, "TWCC_LOWMEMORY"},
    {TWCC_NODS, "TWCC_NODS"},
    {TWCC_MAXCONNECTIONS, "TWCC_MAXCONNECTIONS"},
    {TWCC_OPERATIONERROR, "TWCC_OPERATIONERROR"},
    {TWCC_BADCAP, "TWCC_BADCAP"},
    {TWCC_BADPROTOCOL, "TWCC_BADPROTOCOL"},
    {TWCC_BADVALUE, "TWCC_BADVALUE"},
    {TWCC_SEQERROR, "TWCC_SEQERROR"},
    {TWCC_BADDEST, "TWCC_BADDEST"},
    {TWCC_CAPUNSUPPORTED, "TWCC_CAPUNSUPPORTED"},
    {TWCC_CAPBADOPERATION, "TWCC_CAPBADOPERATION"},
    {TWCC_CAPSEQERROR, "TWCC_CAPSEQERROR"},
    {TWCC_DENIED, "TWCC_DENIED"},
    {TWCC_FILEEXISTS, "TWCC_FILEEXISTS"},
    {TWCC_FILENOTFOUND, "TWCC_FILENOTFOUND"},
    {TWCC_NOTEMPTY, "TWCC_NOTEMPTY"},
    {TWCC_PAPERJAM, "TWCC_PAPERJAM"},
    {TWCC_PAPERDOUBLEFEED, "TWCC_PAPERDOUBLEFEED"},
    {TWCC_FILEWRITEERROR, "TWCC_FILEWRITEERROR"},
    {TWCC_CHECKDEVICEONLINE, "TWCC_CHECKDEVICEONLINE"},
};

const Named sCapabilities[] = {
    {CAP_XFERCOUNT, "CAP_XFERCOUNT"},
    {ICAP_COMPRESSION, "ICAP_COMPRESSION"},
    {ICAP_PIXELTYPE, "ICAP_PIXELTYPE"},
    {ICAP_UNITS, "ICAP_UNITS"},
    {ICAP_XFERMECH, "ICAP_XFERMECH"},
    {CAP_AUTHOR, "CAP_AUTHOR"},
    {CAP_CAPTION, "CAP_CAPTION"},
    {CAP_FEEDERENABLED, "CAP_FEEDERENABLED"},
    {CAP_FEEDERLOADED, "CAP_FEEDERLOADED"},
    {CAP_TIMEDATE, "CAP_TIMEDATE"},
    {CAP_SUPPORTEDCAPS, "CAP_SUPPORTEDCAPS"},
    {CAP_EXTENDEDCAPS, "CAP_EXTENDEDCAPS"},
    {CAP_AUTOFEED, "CAP_AUTOFEED"},
    {CAP_INDICATORS, "CAP_INDICATORS"},
    {CAP_UICONTROLLABLE, "CAP_UICONTROLLABLE"},
    {CAP_DEVICEONLINE, "CAP_DEVICEONLINE"},
    {CAP_ENABLEDSUIONLY, "CAP_ENABLEDSUIONLY"},
    {ICAP_AUTOBRIGHT, "ICAP_AUTOBRIGHT"},
    {ICAP_BRIGHTNESS, "ICAP_BRIGHTNESS"},
    {ICAP_CONTRAST, "ICAP_CONTRAST"},
    {ICAP_GAMMA, "ICAP_GAMMA"},
    {ICAP_IMAGEFILEFORMAT, "ICAP_IMAGEFILEFORMAT"},
    {ICAP_ORIENTATION, "ICAP_ORIENTATION"},
    {ICAP_PHYSICALWIDTH, "ICAP_PHYSICALWIDTH"},
    {ICAP_PHYSICALHEIGHT, "ICAP_PHYSICALHEIGHT"},
    {ICAP_FRAMES, "ICAP_FRAMES"},
    {ICAP_XNATIVERESOLUTION, "ICAP_XNATIVERESOLUTION"},
    {ICAP_YNATIVERESOLUTION, "ICAP_YNATIVERESOLUTION"},
    {ICAP_XRESOLUTION, "ICAP_XRESOLUTION"},
    {ICAP_YRESOLUTION, "ICAP_YRESOLUTION"},
    {ICAP_MAXFRAMES, "ICAP_MAXFRAMES"},
    {ICAP_BITORDER, "ICAP_BITORDER"},
    {ICAP_PIXELFLAVOR, "ICAP_PIXELFLAVOR"},
    {ICAP_PLANARCHUNKY, "ICAP_PLANARCHUNKY"},
    {ICAP_SUPPORTEDSIZES, "ICAP_SUPPORTEDSIZES"},
    {ICAP_XSCALING, "ICAP_XSCALING"},
    {ICAP_YSCALING, "ICAP_YSCALING"},
    {ICAP_BITDEPTH, "ICAP_BITDEPTH"},
    {ICAP_UNDEFINEDIMAGESIZE, "ICAP_UNDEFINEDIMAGESIZE"},
    {ICAP_MINIMUMHEIGHT, "ICAP_MINIMUMHEIGHT"},
    {ICAP_MINIMUMWIDTH, "ICAP_MINIMUMWIDTH"},
    {ICAP_JPEGQUALITY, "ICAP_JPEGQUALITY"},
};

const Named sItemTypes[] = {
    {TWTY_INT8, "TWTY_INT8"},       {TWTY_INT16, "TWTY_INT16"},   {TWTY_INT32, "TWTY_INT32"},
    {TWTY_UINT8, "TWTY_UINT8"},     {TWTY_UINT16, "TWTY_UINT16"}, {TWTY_UINT32, "TWTY_UINT32"},
    {TWTY_BOOL, "TWTY_BOOL"},       {TWTY_FIX32, "TWTY_FIX32"},   {TWTY_FRAME, "TWTY_FRAME"},
    {TWTY_STR32, "TWTY_STR32"},     {TWTY_STR64, "TWTY_STR64"},   {TWTY_STR128, "TWTY_STR128"},
    {TWTY_STR255, "TWTY_STR255"},   {TWTY_STR1024, "TWTY_STR1024"}, {TWTY_UNI512, "TWTY_UNI512"},
    {TWTY_HANDLE, "TWTY_HANDLE"},
};

const Named sPixelTypes[] = {{TWPT_BW, "TWPT_BW"}, {TWPT_GRAY, "TWPT_GRAY"}, {TWPT_RGB, "TWPT_RGB"},
                             {TWPT_PALETTE, "TWPT_PALETTE"}};
const Named sMechanisms[] = {{TWSX_NATIVE, "TWSX_NATIVE"}, {TWSX_FILE, "TWSX_FILE"}, {TWSX_MEMORY, "TWSX_MEMORY"},
                             {TWSX_FILE2, "TWSX_FILE2"}};
const Named sFileFormats[] = {{TWFF_TIFF, "TWFF_TIFF"}, {TWFF_PICT, "TWFF_PICT"}, {TWFF_BMP, "TWFF_BMP"},
                              {TWFF_XBM, "TWFF_XBM"},   {TWFF_JFIF, "TWFF_JFIF"}, {TWFF_PNG, "TWFF_PNG"}};
const Named sUnits[] = {{TWUN_INCHES, "TWUN_INCHES"}, {TWUN_CENTIMETERS, "TWUN_CENTIMETERS"},
                        {TWUN_PIXELS, "TWUN_PIXELS"}};
const Named sCompressions[] = {{TWCP_NONE, "TWCP_NONE"}};
const Named sPlanar[] = {{TWPC_CHUNKY, "TWPC_CHUNKY"}, {TWPC_PLANAR, "TWPC_PLANAR"}};
const Named sFlavors[] = {{TWPF_CHOCOLATE, "TWPF_CHOCOLATE"}, {TWPF_VANILLA, "TWPF_VANILLA"}};
const Named sBitOrders[] = {{TWBO_LSBFIRST, "TWBO_LSBFIRST"}, {TWBO_MSBFIRST, "TWBO_MSBFIRST"}};

}  // namespace

std::string conditionCodeName(std::uint16_t code)
{
    const char* name = lookup(sConditionCodes, code);
    return name ? name : hex("TWCC_", code);
}

std::string capabilityName(std::uint16_t cap)
{
    const char* name = lookup(sCapabilities, cap);
    return name ? name : hex("", cap);
}

std::string itemTypeName(std::uint16_t itemType)
{
    const char* name = lookup(sItemTypes, itemType);
    return name ? name : hex("TWTY_", itemType);
}

std::string valueName(std::uint16_t cap, std::uint32_t value)
{
    const char* name = nullptr;
    switch (cap) {
    case ICAP_PIXELTYPE: name = lookup(sPixelTypes, value); break;
    case ICAP_XFERMECH: name = lookup(sMechanisms, value); break;
    case ICAP_IMAGEFILEFORMAT: name = lookup(sFileFormats, value); break;
    case ICAP_UNITS: name = lookup(sUnits, value); break;
    case ICAP_COMPRESSION: name = lookup(sCompressions, value); break;
    case ICAP_PLANARCHUNKY: name = lookup(sPlanar, value); break;
    case ICAP_PIXELFLAVOR: name = lookup(sFlavors, value); break;
    case ICAP_BITORDER: name = lookup(sBitOrders, value); break;
    case CAP_SUPPORTEDCAPS: return capabilityName(static_cast<std::uint16_t>(value));
    default: break;
    }
    return name ? name : std::string();
}

}  // namespace zentary
