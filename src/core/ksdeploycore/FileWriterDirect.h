#pragma once
#include "FileWriter.h"

namespace KsDeploy
{
// Installs every resource on the calling thread, one after the other.
class FileWriterDirect : public FileWriter
{
public:
    McResult install(Resource& inResource) override;
    McResult finish() override { return McResult(); }
};
}
