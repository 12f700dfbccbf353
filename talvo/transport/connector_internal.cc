#include "talvo/transport/connector_internal.h"

ACmConnectorUpper::~ACmConnectorUpper() = default;
ACmConnectorInternal::~ACmConnectorInternal() = default;

CmResult ACmConnectorInternal::SetOption(DWORD, void*) { return CM_ERROR_INVALID_ARG; }

CmResult ACmConnectorInternal::GetOption(DWORD, void*) { return CM_ERROR_INVALID_ARG; }
