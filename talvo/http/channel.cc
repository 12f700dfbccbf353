#include "talvo/http/channel.h"

ICmChannelSink::~ICmChannelSink() = default;
