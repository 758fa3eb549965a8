#include "FileWriterDirect.h"

#include "Resource.h"

using namespace KsDeploy;

McResult FileWriterDirect::install(Resource& inResource) { return inResource.install(); }
