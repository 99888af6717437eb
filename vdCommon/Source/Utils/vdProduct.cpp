#include "Utils/vdProduct.h"

namespace {
vdProductInfo makeProductInfo() {
    vdProductInfo product;
    product.version = {3, 1, 5, 0};
    product.build = 552;
    product.displayName = "Clipforge";
    product.supportAddress = "support@clipforge.example";
    product.productId = "Clipforge";
    product.productUrl = "https://clipforge.example";
    product.folderName = "Clipforge";
    product.optionsFileName = "Clipforge_options.ini";
    product.commandFileName = "Clipforge_CmdFile.txt";
    return product;
}
} // namespace

const vdProductInfo& productInfo() {
    static const vdProductInfo product = makeProductInfo();
    return product;
}

void setProductInfo() {
    productInfo();
}
