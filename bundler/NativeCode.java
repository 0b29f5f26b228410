package bundler;

import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * Tells from its first bytes what native code a file contains, as Apple's mach-o/loader.h and
 * mach-o/fat.h and the ELF standard describe them.
 */
final class NativeCode {
  static final String NONE = "no native code";
  static final String UNIVERSAL = "universal code for Macs";

  private static final int HEAD_SIZE = 20;
  private static final int MACH_O_64 = 0xFEEDFACF;
  private static final int MACH_O_X86_64 = 0x01000007;
  private static final int MACH_O_ARM64 = 0x0100000C;
  private static final int MACH_O_UNIVERSAL = 0xCAFEBABE; // also the first bytes of a Java class
  private static final int MOST_PARTS = 20; // where a Java class has its version, 45 or more
  private static final int ELF = 0x7F454C46;
  private static final int ELF_PROCESSOR_OFFSET = 18;
  private static final int ELF_X86_64 = 62;
  private static final int ELF_ARM64 = 183;

  private NativeCode() {}

  static String forMac(String processor) {
    return processor + " code for Macs";
  }

  static String forLinux(String processor) {
    return processor + " code for Linux";
  }

  /** One of the constants and texts above. */
  static String in(Path file) throws IOException {
    ByteBuffer head;
    try (InputStream stream = Files.newInputStream(file)) {
      head = ByteBuffer.wrap(Arrays.copyOf(stream.readNBytes(HEAD_SIZE), HEAD_SIZE));
    }
    if (head.getInt(0) == MACH_O_UNIVERSAL && head.getInt(4) <= MOST_PARTS) {
      return UNIVERSAL;
    }
    boolean isElf = head.getInt(0) == ELF;
    head.order(ByteOrder.LITTLE_ENDIAN);
    if (isElf) {
      return forLinux(switch (head.getShort(ELF_PROCESSOR_OFFSET)) {
        case ELF_X86_64 -> "x86_64";
        case ELF_ARM64 -> "arm64";
        default -> "other";
      });
    }
    if (head.getInt(0) == MACH_O_64) {
      return forMac(switch (head.getInt(4)) {
        case MACH_O_X86_64 -> "x86_64";
        case MACH_O_ARM64 -> "arm64";
        default -> "other";
      });
    }
    return NONE;
  }
}
