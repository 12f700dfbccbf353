#include "talvo/transport/connector_internal.h"

ACmConnectorUpper::~ACmConnectorUpper() = default;
ACmConnectorInternal::~ACmConnectorInternal() = default;
