#include "talvo/base/reference_control.h"

ICmReferenceControl::~ICmReferenceControl() = default;
