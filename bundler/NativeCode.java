package bundler;

import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * Tells native code by its first bytes, as Apple's mach-o headers and the ELF standard have them.
 */
final class NativeCode {
  private static final String NONE = "no native code";
  private static final String UNIVERSAL = "universal code for Macs";

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

  /** What code for a processor is called here. */
  static String name(String processor, boolean isForMac) {
    return processor + " code for " + (isForMac ? "Macs" : "Linux");
  }

  /** Refuses a file that does not contain the code of this name; universal code suits every Mac. */
  static void check(Path file, String name) throws IOException {
    String found = Files.isRegularFile(file) ? in(file) : NONE;
    if (!found.equals(name) && !(found.equals(UNIVERSAL) && name.endsWith("Macs"))) {
      throw new UserError(file + " contains " + found + ", but the bundle is for " + name
          + (name.endsWith("Macs") ? "; --arch chooses the processor" : ""));
    }
  }

  static boolean isIn(Path file) throws IOException {
    return !in(file).equals(NONE);
  }

  private static String in(Path file) throws IOException {
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
      return name(switch (head.getShort(ELF_PROCESSOR_OFFSET)) {
        case ELF_X86_64 -> "x86_64";
        case ELF_ARM64 -> "arm64";
        default -> "other";
      }, false);
    }
    if (head.getInt(0) == MACH_O_64) {
      return name(switch (head.getInt(4)) {
        case MACH_O_X86_64 -> "x86_64";
        case MACH_O_ARM64 -> "arm64";
        default -> "other";
      }, true);
    }
    return NONE;
  }
}
