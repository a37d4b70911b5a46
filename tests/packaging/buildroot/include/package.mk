# What happens to a package in a build tree, one target for each step, in the folder WORK.
PKG_BUILD_DIR:=$(WORK)/source
PKG_INSTALL_DIR:=$(WORK)/install

define BuildPackage
.PHONY: configure stage conffiles version
configure:
	$$(Build/Prepare)
	$$(Build/Configure)

stage:
	$$(Build/Install)
	$$(INSTALL_DIR) $$(WORK)/stage
	$$(call Package/$(1)/install,$$(WORK)/stage)

conffiles:
	$$(info $$(Package/$(1)/conffiles))
	@:

version:
	$$(info $$(PKG_VERSION))
	@:
endef
