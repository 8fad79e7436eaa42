// Configuration files in a started library: where they are looked for, and which messages its level lets through.
#include "config_files.h"

namespace {

using namespace cm::test;

int16_t CM_CALL collect(cm_context *, cm_value user, const char *name, const char *value) {
    *reinterpret_cast<std::string *>(user) += std::string(name) + "=" + value + "|";
    return 1;
}

TEST(ConfigInALibrary, LoadsBelowTheConfigurationFolder) {
    Library library("Trace Level=ERROR", [](TempFolder &folder) {
        folder.write("config/good.ini", "[s]\na=1\n");
        folder.write("config/bad.ini", "[s]\nnonsense\n");
    });
    ASSERT_TRUE(library.ok());
    std::string loaded;
    EXPECT_EQ(cm_props_load(library, "good.ini", "S", -3, CM_OUT(&loaded), collect), 1);
    EXPECT_EQ(loaded, "a=1|");
    EXPECT_EQ(cm_props_load(library, "bad.ini", "s", -3, CM_OUT(&loaded), collect), 0);
    EXPECT_TRUE(library.logged("ERROR: cm_next_entry(): There was no entry found in the section."));
    EXPECT_TRUE(library.logged("ERROR: cm_props_load(): Error processing '" + library.folder().path("config/bad.ini") +
                               "' (line 2)"));
    EXPECT_EQ(cm_props_load(library, "none.ini", "s", -3, CM_OUT(&loaded), collect), 0);
    EXPECT_TRUE(library.logged("ERROR: Failure opening configuration file '" +
                               library.folder().path("config/none.ini") + "'."));
    const size_t lines = library.log().size();
    library.ctx()->trace_level = 19;
    EXPECT_EQ(cm_props_load(library, "bad.ini", "s", -3, CM_OUT(&loaded), collect), 0);
    EXPECT_EQ(cm_props_load(library, "none.ini", "s", -3, CM_OUT(&loaded), collect), 0);
    EXPECT_EQ(library.log().size(), lines);
}

TEST(ConfigInALibrary, RewriteMessagesFollowTheContextsLevel) {
    Library library("Trace Level=ERROR", [](TempFolder &folder) { folder.write("a.ini", "[s]\nnonsense\n"); });
    ASSERT_TRUE(library.ok());
    const std::string path = library.folder().path("a.ini"), bak = library.folder().path("a.bak");
    const cm_prop_entry change = {1, 1, "a", "1"};
    const size_t lines = library.log().size();
    library.ctx()->trace_level = 19;
    EXPECT_EQ(cm_update_section(library, path.c_str(), bak.c_str(), "s", -3, &change, 1), 0);
    EXPECT_EQ(library.log().size(), lines);
    library.ctx()->trace_level = 20;
    EXPECT_EQ(cm_update_section(library, path.c_str(), bak.c_str(), "s", -3, &change, 1), 0);
    EXPECT_TRUE(library.logged("ERROR: cm_update_section(): No entry was found in the section."));
    EXPECT_EQ(library.ctx()->file_open, 1);  // the log
}

}  // namespace
