// The menu-bar items on macOS: one NSStatusItem of variable length per chosen metric, its image
// drawn by menubar_images (Qt's tray icon is square and would shrink a wide image). Each item has
// an autosave name, so the system keeps its place; the person may drag one out of the bar with
// Command held, which the item reports as no longer visible (observed): that metric is then
// unticked in settings, and ticking it again brings the item back.
// Manual reference counting (the build does not turn on ARC): every alloc and retain here is
// balanced in the same class.

#import <AppKit/AppKit.h>

#include <QImage>
#include <QPoint>
#include <map>
#include <string>

#include "ui/menubar_images.hpp"
#include "ui/status_bar.hpp"

@interface VistrelItemTarget : NSObject
@property(nonatomic, copy) void (^onClick)(NSStatusBarButton*);
// Called with the item whose `visible` became NO (the person dragged it out of the bar).
@property(nonatomic, copy) void (^onHidden)(NSStatusItem*);
- (void)clicked:(id)sender;
@end

@implementation VistrelItemTarget
- (void)clicked:(id)sender {
  if (self.onClick) self.onClick((NSStatusBarButton*)sender);
}

- (void)observeValueForKeyPath:(NSString*)keyPath
                      ofObject:(id)object
                        change:(NSDictionary<NSKeyValueChangeKey, id>*)change
                       context:(void*)context {
  if (![keyPath isEqualToString:@"visible"]) return;
  if ([change[NSKeyValueChangeNewKey] boolValue]) return;
  NSStatusItem* item = (NSStatusItem*)object;
  // Not from inside the change: the handler rebuilds the items, removing this one.
  [item retain];
  dispatch_async(dispatch_get_main_queue(), ^{
    if (self.onHidden) self.onHidden(item);
    [item release];
  });
}
@end

namespace vistrel::ui {

namespace {

// The image for an item at the screen's scale; a template when monochrome (the system tints it).
NSImage* imageFor(const MenuItemView& item, double scale) {
  const Shade shade = currentShade();
  const bool asTemplate = itemIsTemplate(item, true);
  QImage image = drawMenuItem(item, shade, scale, true);
  CGImageRef cg = image.toCGImage();
  if (!cg) return nil;
  NSImage* ns = [[NSImage alloc] initWithCGImage:cg size:NSMakeSize(itemWidth(item), kItemHeight)];
  CGImageRelease(cg);
  // Not `ns.template`: that property's name is a C++ keyword in Objective-C++.
  [ns setTemplate:asTemplate];
  return [ns autorelease];
}

class MenuBarItems final : public StatusItems {
 public:
  MenuBarItems() {
    target_ = [[VistrelItemTarget alloc] init];
    target_.onClick = ^(NSStatusBarButton* button) {
      if (!onClick) return;
      // Below the item, in Qt's coordinates (origin at the top left of the primary screen).
      NSRect inWindow = [button convertRect:button.bounds toView:nil];
      NSRect onScreen = [button.window convertRectToScreen:inWindow];
      const CGFloat top = NSMaxY(NSScreen.screens.firstObject.frame);
      onClick(QPoint(static_cast<int>(NSMidX(onScreen)), static_cast<int>(top - NSMinY(onScreen))));
    };
    target_.onHidden = ^(NSStatusItem* hidden) {
      for (const Entry& e : items_) {
        if (e.item == hidden) {
          if (onRemoved) onRemoved(e.metric);
          return;
        }
      }
    };
  }

  ~MenuBarItems() override {
    clear();
    // A removal still queued on the main queue then finds no handler instead of this object.
    target_.onHidden = nil;
    target_.onClick = nil;
    [target_ release];
  }

  bool available() const override { return true; }

  void sync(const std::vector<MenuItemView>& items) override {
    clear();
    for (const MenuItemView& view : items) {
      NSStatusItem* item =
          [NSStatusBar.systemStatusBar statusItemWithLength:NSVariableStatusItemLength];
      [item retain];
      const std::string name = "VistrelItem-" + std::string(rawValue(view.metric));
      item.autosaveName = [NSString stringWithUTF8String:name.c_str()];
      item.behavior = NSStatusItemBehaviorRemovalAllowed;
      item.button.target = target_;
      item.button.action = @selector(clicked:);
      item.button.imagePosition = NSImageOnly;
      // Chosen in settings, so shown, even if the system remembers it as dragged away once.
      item.visible = YES;
      [item addObserver:target_
             forKeyPath:@"visible"
                options:NSKeyValueObservingOptionNew
                context:nil];
      items_.push_back({view.metric, item});
    }
    update(items);
  }

  void update(const std::vector<MenuItemView>& items) override {
    const double scale = NSScreen.mainScreen ? NSScreen.mainScreen.backingScaleFactor : 2.0;
    for (size_t i = 0; i < items.size() && i < items_.size(); ++i) {
      // A removed item is not drawn.
      if (!items_[i].item.visible) continue;
      items_[i].item.button.image = imageFor(items[i], scale);
    }
  }

 private:
  struct Entry {
    Metric metric;
    NSStatusItem* item;
  };

  void clear() {
    for (const Entry& e : items_) {
      [e.item removeObserver:target_ forKeyPath:@"visible"];
      [NSStatusBar.systemStatusBar removeStatusItem:e.item];
      [e.item release];
    }
    items_.clear();
  }

  VistrelItemTarget* target_ = nil;
  std::vector<Entry> items_;
};

}  // namespace

std::unique_ptr<StatusItems> makeStatusItems() {
  return std::make_unique<MenuBarItems>();
}

}  // namespace vistrel::ui
