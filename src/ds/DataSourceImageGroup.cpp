// The DG_IMAGE triplets.
#include "ds/DataSourceEngine.h"

namespace zentary {

using namespace twain;

TW_UINT16 DataSourceEngine::image(TW_IDENTITY* /*origin*/, TW_UINT16 /*type*/, TW_UINT16 /*message*/,
                                  TW_MEMREF /*data*/, TW_UINT16* conditionCode)
{
    // Image information, layout and the transfers are not answered yet.
    if (conditionCode) *conditionCode = TWCC_BADPROTOCOL;
    return TWRC_FAILURE;
}

}  // namespace zentary
