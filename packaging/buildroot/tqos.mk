################################################################################
#
# tqos
#
################################################################################

# Written against Buildroot's manual and not been built. TQOS_OVERRIDE_SRCDIR in local.mk names another place of the
# sources.
TQOS_VERSION = 1.0.0
TQOS_SITE = $(BR2_EXTERNAL_TQOS_PATH)/../..
TQOS_SITE_METHOD = local
TQOS_INSTALL_STAGING = YES
TQOS_CONF_OPTS = -DBUILD_TESTING=OFF -DTQOS_EXAMPLES=OFF -DTQOS_TOOLS=OFF

$(eval $(cmake-package))
