// A desktop application that is opened by links: com.example.shop.desktop gives it those of the
// scheme "shop". The first start stays, and later ones hand their link to it, which is
// GApplication's own doing, over D-Bus.
//
//     shop [--port N --ca FILE] [LINK]           N and FILE as the local service prints them
//     gapplication action com.example.shop quit
//
// Links come as a command line, rather than by G_APPLICATION_HANDLES_OPEN (and
// DBusActivatable=true, which needs it): a GFile's URI may differ from the one it was made of. With
// GVfs, which most desktops have, a slash at the end of a path goes, and "%41" becomes "A".

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>
#include <gio/gio.h>
#include <glib-unix.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace quorva;

namespace {

constexpr const char* identifier = "com.example.shop";

gint port = 0;
gchar* caFile = nullptr;

class Shop : public QuorvaDelegate {
 public:
  explicit Shop(GApplication* application) : application_(application) {}

  bool failed = false;

  void open(URL link) {
    if (isReady_) {
      Quorva::handleLink(std::move(link));
    } else {
      early_.push_back(std::move(link));
    }
  }

  void quorvaDidInitialize(const QVConfiguration&) override {
    isReady_ = true;
    for (URL& link : std::exchange(early_, {})) Quorva::handleLink(std::move(link));
  }
  void quorvaDidFailToInitialize(const Error& error) override {
    g_printerr("shop: %s\n", error.what());
    failed = true;
    g_application_quit(application_);
  }

  void quorvaDidResolveDeepLink(const URL& destination, const Metadata& metadata) override {
    g_print("%s leads to %s\n", std::get<std::string>(metadata.at("originalURL")).c_str(),
            destination.absoluteString().c_str());
  }
  void quorvaDidFailToResolveDeepLink(const std::optional<URL>& link, const Error& error) override {
    g_printerr("shop: %s: %s\n", link ? link->absoluteString().c_str() : "a deferred link",
               error.what());
  }

 private:
  GApplication* const application_;
  bool isReady_ = false;
  std::vector<URL> early_;
};

// In every process that is started: what it was told of itself.
gint checkOptions(GApplication*, GVariantDict*, gpointer) {
  if (port >= 0 && port <= G_MAXUINT16 && (port != 0) == (caFile != nullptr)) return -1;  // go on
  g_printerr("shop: --port N and --ca FILE go together; N is from 1 to 65535\n");
  return 2;
}

gboolean drain(gint, GIOCondition, gpointer) {
  MainQueue::drain();
  return G_SOURCE_CONTINUE;
}

// In the first, before any link.
void begin(GApplication* application, const std::shared_ptr<Shop>* shop) {
  g_application_hold(application);
  GSource* const queue = g_unix_fd_source_new(MainQueue::fd(), G_IO_IN);
  g_source_set_callback(queue, G_SOURCE_FUNC(drain), nullptr, nullptr);
  g_source_set_can_recurse(queue, TRUE);  // for a dialog that a callback runs
  g_source_attach(queue, nullptr);
  g_source_unref(queue);
  if (port != 0) useLocalService(static_cast<std::uint16_t>(port), caFile);
  Bundle::setMain({.identifier = identifier, .infoDictionary = {}});
  Quorva::initialize(QVConfiguration("qk_shop", /*debug=*/false, *shop));
}

// In the first, for what any was started with. What is returned is that start's status.
gint openLinks(GApplication*, GApplicationCommandLine* start, const std::shared_ptr<Shop>* shop) {
  gint status = EXIT_SUCCESS;
  gchar** const arguments = g_application_command_line_get_arguments(start, nullptr);
  for (gchar** argument = arguments + 1; *argument; ++argument) {
    if (auto link = URL::parse(*argument)) {
      (*shop)->open(*std::move(link));
    } else {
      g_application_command_line_printerr(start, "shop: \"%s\" is no link\n", *argument);
      status = 2;
    }
  }
  g_strfreev(arguments);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  GApplication* const application =
      g_application_new(identifier, G_APPLICATION_HANDLES_COMMAND_LINE);
  auto shop = std::make_shared<Shop>(application);
  const GOptionEntry options[] = {
      {"port", 0, 0, G_OPTION_ARG_INT, &port, "The local service's port", "N"},
      {"ca", 0, 0, G_OPTION_ARG_FILENAME, &caFile, "Its certificate authority", "FILE"},
      {}};
  g_application_add_main_option_entries(application, options);
  g_application_set_option_context_parameter_string(application, "[LINK]");

  GSimpleAction* const quit = g_simple_action_new("quit", nullptr);
  g_signal_connect_swapped(quit, "activate", G_CALLBACK(g_application_quit), application);
  g_action_map_add_action(G_ACTION_MAP(application), G_ACTION(quit));
  g_signal_connect(application, "handle-local-options", G_CALLBACK(checkOptions), nullptr);
  g_signal_connect(application, "startup", G_CALLBACK(begin), &shop);
  g_signal_connect(application, "command-line", G_CALLBACK(openLinks), &shop);

  const int status = g_application_run(application, argc, argv);
  g_object_unref(quit);
  g_object_unref(application);
  g_free(caFile);
  return shop->failed ? EXIT_FAILURE : status;
}
