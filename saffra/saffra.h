// Everything a test needs: the session class, its configuration, check settings, regions, the
// runner and the exceptions.
#pragma once

#include "saffra/base/logger.h"
#include "saffra/base/region.h"
#include "saffra/checks/check_settings.h"
#include "saffra/checks/floating_match_settings.h"
#include "saffra/checks/image_match_settings.h"
#include "saffra/checks/match_level.h"
#include "saffra/checks/region_providers.h"
#include "saffra/config/abstract_proxy_settings.h"
#include "saffra/config/batch_info.h"
#include "saffra/config/configuration.h"
#include "saffra/platform/error.h"
#include "saffra/platform/image.h"
#include "saffra/results/exceptions.h"
#include "saffra/results/saffra_runner.h"
#include "saffra/results/test_results_summary.h"
#include "saffra/service/test_results.h"
#include "saffra/session/saffra.h"
#include "saffra/version.h"
