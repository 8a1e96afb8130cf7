// The test agent lives in the one harness header.
#pragma once
#include "kwtest.h"
