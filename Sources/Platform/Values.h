#pragma once

// The value classes in one include: bytes, instants, URLs, errors and images.

#include "Data.h"
#include "Date.h"
#include "Error.h"
#include "Image.h"
#include "URL.h"
