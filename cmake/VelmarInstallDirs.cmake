# The installed layout (GNUInstallDirs). Headers keep their src/<Folder>/X.h paths under the
# include folder. The plug-ins have a folder of their own under the library folder: the
# loader looks for them relative to its own library, so an installed tree may be moved.
include(GNUInstallDirs)
set(VELMAR_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/velmar_mcast/plugins)
set(VELMAR_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/VelmarMcast)
