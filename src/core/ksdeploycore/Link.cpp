#include "Link.h"

#include "Resource.h"

using namespace KsDeploy;

Link::Link(const Resource& inTarget, const QString& inName) : mTarget(const_cast<Resource*>(&inTarget)), mName(inName)
{
}

Link::~Link() = default;
