#include "talvo/http/channel/channel.h"

ICmChannelSink::~ICmChannelSink() = default;
