#include "ResourceProduct.h"

KsDeploy::ResourceProduct::~ResourceProduct() = default;
