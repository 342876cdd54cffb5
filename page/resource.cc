#include "zelvarpack/resource.h"

void* CResource::GetZelvarHtmlServer() { return owner_; }
