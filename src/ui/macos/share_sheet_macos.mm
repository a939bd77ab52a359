#include "ui/share_sheet.hpp"

#import <AppKit/AppKit.h>

#include <QWidget>

namespace vistrel::ui {

bool hasSystemShareSheet() {
  return true;
}

bool presentShareSheet(const std::string& pngPath, QWidget& anchor) {
  @autoreleasepool {
    NSString* path = [NSString stringWithUTF8String:pngPath.c_str()];
    NSURL* url = [NSURL fileURLWithPath:path];
    if (!url) return false;
    // Qt's widget id on macOS is the NSView that draws the widget.
    NSView* view = (__bridge NSView*)reinterpret_cast<void*>(anchor.winId());
    if (!view) return false;
    NSSharingServicePicker* picker = [[NSSharingServicePicker alloc] initWithItems:@[ url ]];
    [picker showRelativeToRect:view.bounds ofView:view preferredEdge:NSRectEdgeMinY];
    return true;
  }
}

}  // namespace vistrel::ui
