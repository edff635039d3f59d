#pragma once

// Everything the platform layer offers, in one include.

#include "Block.h"
#include "Collections.h"
#include "Exception.h"
#include "FileManager.h"
#include "Format.h"
#include "KeyedArchiver.h"
#include "NotificationCenter.h"
#include "Number.h"
#include "Object.h"
#include "Ref.h"
#include "RunLoop.h"
#include "String.h"
#include "Subscription.h"
#include "URLLoading.h"
#include "ValueTransformer.h"
#include "Values.h"
