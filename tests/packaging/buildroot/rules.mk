# A build tree's rules, as far as the agent's package uses them.
INCLUDE_DIR:=$(TOPDIR)/include
INSTALL_DIR:=install -d -m0755
CP:=cp -fpR
qstrip=$(strip $(subst ",,$(1)))
