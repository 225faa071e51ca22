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
FRWK_CONF_OPTS = -DFRWK_BUILD_TESTS=OFF -DFRWK_BUILD_EXAMPLES=OFF

ifeq ($(BR2_PACKAGE_FRWK_TOOLS),y)
FRWK_CONF_OPTS += -DFRWK_BUILD_DEVICE=ON
else
FRWK_CONF_OPTS += -DFRWK_BUILD_DEVICE=OFF
endif

$(eval $(cmake-package))
