// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Mechanisms;
import java.io.ByteArrayOutputStream;
import java.security.AlgorithmParameters;
import java.security.GeneralSecurityException;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.Key;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.ProviderException;
import java.security.SecureRandom;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.InvalidParameterSpecException;
import java.security.spec.MGF1ParameterSpec;
import java.util.Arrays;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.crypto.BadPaddingException;
import javax.crypto.Cipher;
import javax.crypto.CipherSpi;
import javax.crypto.IllegalBlockSizeException;
import javax.crypto.NoSuchPaddingException;
import javax.crypto.ShortBufferException;
import javax.crypto.spec.OAEPParameterSpec;
import javax.crypto.spec.PSource;
import javax.crypto.spec.SecretKeySpec;
import javax.security.auth.login.LoginException;

/**
 * Decrypts and unwraps with an RSA key on a token. It hands encryption, and every other key, on to
 * another provider.
 */
final class TokenCipher extends CipherSpi {
  static final String NAME = "RSA/ECB/PKCS1Padding";
  static final String OAEP_NAME = "RSA/ECB/OAEPPadding";

  private static final Pattern OAEP =
      Pattern.compile("OAEP(With(.+)AndMGF1)?Padding", Pattern.CASE_INSENSITIVE);

  /** Initialises the cipher of another provider. */
  private interface Start {
    void start(Cipher cipher) throws GeneralSecurityException;
  }

  private final Provider provider;

  private final ByteArrayOutputStream data = new ByteArrayOutputStream();

  /** The key on a token, null before the first one. */
  private TokenKey.Rsa key;

  /** The padding as the caller named it. */
  private String padding;

  /** The {@code CKM_} for the padding; for OAEP, the number of {@link PKCS11Mechanisms#oaep}. */
  private int mechanism = CKM_RSA_PKCS;

  /** The OAEP parameters that the name of the padding implies, null for another padding. */
  private OAEPParameterSpec standard;

  /** The OAEP parameters in use: those of the caller, else {@link #standard}. */
  private OAEPParameterSpec oaep;

  /** The cipher of another provider, null unless the key went on to one. */
  private Cipher other;

  /**
   * Makes a cipher without a key.
   *
   * @param provider the provider of this cipher
   * @param padding a name for {@link #engineSetPadding}
   */
  TokenCipher(Provider provider, String padding) {
    this.provider = provider;
    try {
      engineSetPadding(padding);
    } catch (NoSuchPaddingException e) {
      throw new IllegalArgumentException(e);
    }
  }

  @Override
  protected void engineSetMode(String mode) throws NoSuchAlgorithmException {
    if (!mode.equalsIgnoreCase("ECB")) {
      throw new NoSuchAlgorithmException("the mode is ECB, not " + mode);
    }
  }

  /**
   * Takes {@code PKCS1Padding}, {@code NoPadding}, {@code OAEPPadding} (that is with SHA-1) or
   * {@code OAEPWith<digest>AndMGF1Padding}.
   */
  @Override
  protected void engineSetPadding(String wanted) throws NoSuchPaddingException {
    Matcher name = OAEP.matcher(wanted);
    if (name.matches()) {
      // As in Java's own cipher, the name implies a mask by SHA-1, whatever the digest.
      String digest = name.group(2) == null ? "SHA-1" : name.group(2);
      standard = new OAEPParameterSpec(
          digest, "MGF1", MGF1ParameterSpec.SHA1, PSource.PSpecified.DEFAULT);
      try {
        take(standard);
      } catch (InvalidAlgorithmParameterException e) {
        throw (NoSuchPaddingException) new NoSuchPaddingException(e.getMessage()).initCause(e);
      }
    } else if (wanted.equalsIgnoreCase("NoPadding")) {
      mechanism = CKM_RSA_X_509;
    } else if (!wanted.equalsIgnoreCase("PKCS1Padding")) {
      throw new NoSuchPaddingException("the padding is PKCS1Padding, OAEPPadding,"
          + " OAEPWith<digest>AndMGF1Padding or NoPadding, not " + wanted);
    }
    padding = wanted;
  }

  @Override
  protected void engineInit(int mode, Key wanted, SecureRandom random) throws InvalidKeyException {
    init(mode, wanted, cipher -> cipher.init(mode, wanted, random));
  }

  @Override
  protected void engineInit(int mode, Key wanted, AlgorithmParameterSpec parameters,
      SecureRandom random) throws InvalidKeyException, InvalidAlgorithmParameterException {
    init(mode, wanted, cipher -> cipher.init(mode, wanted, parameters, random));
    if (other == null && parameters != null) {
      take(parameters);
    }
  }

  @Override
  protected void engineInit(int mode, Key wanted, AlgorithmParameters parameters,
      SecureRandom random) throws InvalidKeyException, InvalidAlgorithmParameterException {
    init(mode, wanted, cipher -> cipher.init(mode, wanted, parameters, random));
    if (other == null && parameters != null) {
      try {
        take(parameters.getParameterSpec(OAEPParameterSpec.class));
      } catch (InvalidParameterSpecException e) {
        throw new InvalidAlgorithmParameterException(e.getMessage(), e);
      }
    }
  }

  /** Takes OAEP parameters; refuses any parameters if the padding is another one. */
  private void take(AlgorithmParameterSpec parameters) throws InvalidAlgorithmParameterException {
    if (standard == null) {
      // JSSE goes on without its parameters after this exception, but not after the declared one.
      throw new UnsupportedOperationException("a key on a token takes no parameters but OAEP's");
    }
    try {
      mechanism = PKCS11Mechanisms.oaep((OAEPParameterSpec) parameters);
    } catch (IllegalArgumentException | ClassCastException e) {
      throw new InvalidAlgorithmParameterException("OAEP is wanted without a label: "
          + e.getMessage(), e);
    }
    oaep = (OAEPParameterSpec) parameters;
  }

  private void init(int mode, Key wanted, Start start) throws InvalidKeyException {
    if (!(wanted instanceof TokenKey)) {
      other = OtherProviders.first(provider, candidate -> {
        Cipher cipher = Cipher.getInstance("RSA/ECB/" + padding, candidate);
        start.start(cipher);
        return cipher;
      });
      return;
    }
    if (!TokenKey.decrypts(wanted)) {
      throw new InvalidKeyException("an RSA key is wanted that is not for RSASSA-PSS alone, not "
          + wanted);
    }
    if (mode != Cipher.DECRYPT_MODE && mode != Cipher.UNWRAP_MODE) {
      throw new InvalidKeyException("a private key on a token decrypts and unwraps only");
    }
    if (standard != null) {
      oaep = standard;
      mechanism = PKCS11Mechanisms.oaep(standard);
    }
    key = (TokenKey.Rsa) wanted;
    other = null;
    data.reset();
  }

  @Override
  protected int engineGetBlockSize() {
    return other == null ? 0 : other.getBlockSize();
  }

  @Override
  protected int engineGetOutputSize(int inputLength) {
    return other == null ? key.size() : other.getOutputSize(inputLength);
  }

  @Override
  protected byte[] engineGetIV() {
    return null;
  }

  @Override
  protected AlgorithmParameters engineGetParameters() {
    if (other != null || oaep == null) {
      return other == null ? null : other.getParameters();
    }
    try {
      AlgorithmParameters encoded = AlgorithmParameters.getInstance("OAEP");
      encoded.init(oaep);
      return encoded;
    } catch (GeneralSecurityException e) {
      throw new ProviderException(e.getMessage(), e);
    }
  }

  @Override
  protected byte[] engineUpdate(byte[] input, int offset, int length) {
    if (other != null) {
      return other.update(input, offset, length);
    }
    data.write(input, offset, length);
    return new byte[0];
  }

  @Override
  protected int engineUpdate(byte[] input, int offset, int length, byte[] output, int outputOffset)
      throws ShortBufferException {
    if (other != null) {
      return other.update(input, offset, length, output, outputOffset);
    }
    data.write(input, offset, length);
    return 0;
  }

  @Override
  protected byte[] engineDoFinal(byte[] input, int offset, int length)
      throws IllegalBlockSizeException, BadPaddingException {
    if (other != null) {
      return input == null ? other.doFinal() : other.doFinal(input, offset, length);
    }
    if (input != null) {
      data.write(input, offset, length);
    }
    byte[] encrypted = data.toByteArray();
    data.reset();
    if (encrypted.length > key.size()) {
      throw new IllegalBlockSizeException(
          "%d bytes are more than one block of the key".formatted(encrypted.length));
    }
    return decrypt(encrypted);
  }

  @Override
  protected int engineDoFinal(byte[] input, int offset, int length, byte[] output,
      int outputOffset) throws ShortBufferException, IllegalBlockSizeException,
      BadPaddingException {
    if (other != null) {
      return input == null ? other.doFinal(output, outputOffset)
          : other.doFinal(input, offset, length, output, outputOffset);
    }
    byte[] encrypted = data.toByteArray();
    byte[] result = engineDoFinal(input, offset, length);
    if (result.length > output.length - outputOffset) {
      data.writeBytes(encrypted);
      throw new ShortBufferException("%d bytes are needed".formatted(result.length));
    }
    System.arraycopy(result, 0, output, outputOffset, result.length);
    Arrays.fill(result, (byte) 0);
    return result.length;
  }

  private byte[] decrypt(byte[] encrypted) throws BadPaddingException {
    try {
      return mechanism == CKM_RSA_X_509 ? block(key.decrypt(mechanism, block(encrypted)))
          : key.decrypt(mechanism, encrypted);
    } catch (PKCS11Exception | LoginException e) {
      throw new ProviderException("the token does not decrypt in this way: " + e.getMessage(), e);
    }
  }

  /** Returns a number of raw RSA in as many bytes as the modulus has, with zeros in front. */
  private byte[] block(byte[] bytes) {
    byte[] block = new byte[key.size()];
    if (bytes.length > block.length) {
      throw new ProviderException("the token's answer is longer than the modulus");
    }
    System.arraycopy(bytes, 0, block, block.length - bytes.length, bytes.length);
    return block;
  }

  @Override
  protected byte[] engineWrap(Key wrapped) throws IllegalBlockSizeException, InvalidKeyException {
    return other.wrap(wrapped);
  }

  @Override
  protected Key engineUnwrap(byte[] wrapped, String algorithm, int type)
      throws InvalidKeyException, NoSuchAlgorithmException {
    if (other != null) {
      return other.unwrap(wrapped, algorithm, type);
    }
    if (type != Cipher.SECRET_KEY) {
      throw new InvalidKeyException("one block of RSA holds a secret key only");
    }
    try {
      byte[] unwrapped = engineDoFinal(wrapped, 0, wrapped.length);
      try {
        return new SecretKeySpec(unwrapped, algorithm);
      } finally {
        Arrays.fill(unwrapped, (byte) 0);
      }
    } catch (BadPaddingException | IllegalBlockSizeException | IllegalArgumentException e) {
      throw new InvalidKeyException("the key cannot be unwrapped", e);
    }
  }
}
