# The folder of the build is the caller's: WORK/build for `configure`, the desk's own build for `stage`.
CMAKE_BINARY_DIR?=$(PKG_BUILD_DIR)/build

define Build/Configure/Default
	cmake -S $(PKG_BUILD_DIR) -B $(CMAKE_BINARY_DIR) $(CMAKE_OPTIONS) $(EXTRA_OPTIONS)
endef
