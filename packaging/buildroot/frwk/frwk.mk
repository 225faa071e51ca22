# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

################################################################################
#
# frwk
#
################################################################################

FRWK_VERSION = v0.1.0
FRWK_SITE = https://git.example.com/libfrwk.git
FRWK_SITE_METHOD = git
FRWK_LICENSE = MIT
FRWK_LICENSE_FILES = LICENSE
FRWK_INSTALL_STAGING = YES
FRWK_CONF_OPTS = -DFRWK_BUILD_EXAMPLES=OFF

ifeq ($(BR2_PACKAGE_FRWK_TOOLS),y)
FRWK_CONF_OPTS += -DFRWK_BUILD_DEVICE=ON
else
FRWK_CONF_OPTS += -DFRWK_BUILD_DEVICE=OFF
endif

ifeq ($(BR2_PACKAGE_FRWK_TESTS),y)
FRWK_DEPENDENCIES += gtest
FRWK_CONF_OPTS += -DFRWK_BUILD_TESTS=ON

define FRWK_INSTALL_TESTS
	$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(FRWK_BUILDDIR) --component tests
endef
FRWK_POST_INSTALL_TARGET_HOOKS += FRWK_INSTALL_TESTS
else
FRWK_CONF_OPTS += -DFRWK_BUILD_TESTS=OFF
endif

$(eval $(cmake-package))
