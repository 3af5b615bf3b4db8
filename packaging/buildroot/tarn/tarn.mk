################################################################################
#
# tarn
#
################################################################################

# Written by the conventions of Buildroot 2024.02; not built here.
TARN_VERSION = 0.1.0
# Your copy of the repository.
TARN_SITE = https://git.example.com/tarn.git
TARN_SITE_METHOD = git
TARN_LICENSE = Apache-2.0
TARN_LICENSE_FILES = LICENSE
TARN_INSTALL_STAGING = YES
TARN_DEPENDENCIES = \
	cppzmq host-pkgconf host-protobuf libmd protobuf spdlog util-linux zeromq

# The programs write manual and completion themselves, which takes a program
# that runs where it is built.
TARN_CONF_OPTS = \
	-DTARN_BUILD_EXAMPLES=OFF \
	-DTARN_BUILD_PAGES=OFF \
	-DTARN_BUILD_TESTS=OFF \
	-DTARN_INSTALL_RPATH=OFF

ifeq ($(BR2_PACKAGE_TARN_TOOLS),y)
TARN_DEPENDENCIES += json-for-modern-cpp
TARN_CONF_OPTS += -DTARN_BUILD_APPS=ON

define TARN_USERS
	- - corvane -1 - - - - group of the services
	tarnd -1 tarnd -1 * - - corvane tarn router and relay
endef
else
TARN_CONF_OPTS += -DTARN_BUILD_APPS=OFF
endif

$(eval $(cmake-package))
