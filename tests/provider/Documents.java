// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.io.*;
import java.nio.file.*;
import java.security.*;
import java.security.cert.X509Certificate;
import java.util.*;
import org.bouncycastle.cert.jcajce.*;
import org.bouncycastle.cms.*;
import org.bouncycastle.cms.jcajce.*;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.jcajce.*;

/**
 * Signs CMS documents and decrypts some, as programs do that know nothing of tokens: Documents URI
 * PIN. OpenSSL judges what it leaves in the folder where it runs.
 */
class Documents {
  public static void main(String[] args) throws Exception {
    Security.insertProviderAt(new QuarvelProvider().configure(args[0]), 1);
    KeyStore store = KeyStore.getInstance("PKCS11");
    store.load(null, args[1].toCharArray());
    byte[] text = Files.readAllBytes(Path.of("text"));
    write("SHA256withRSA.cms", sign(store, "rsa2048", "SHA256withRSA", text));
    write("SHA256withRSAandMGF1.cms", sign(store, "rsa2048", "SHA256withRSAandMGF1", text));
    write("SHA384withECDSA.cms", sign(store, "prime256v1", "SHA384withECDSA", text));
    // Java's own keys of EC have no object identifier, by which CMS asks for them.
    Security.addProvider(new BouncyCastleProvider());
    for (String name : List.of("rsa2048", "rsa2048-oaep", "agreeing", "agreeing-1")) {
      decrypt(store, name);
    }
    // It then makes public keys of its own classes.
    Security.insertProviderAt(new BouncyCastleProvider(), 1);
    store.load(null, args[1].toCharArray());
    Signature signer = Signature.getInstance("Ed25519");
    signer.initSign((PrivateKey) store.getKey("ed25519", null));
    signer.update(text);
    write("signature", signer.sign());
  }

  private static void decrypt(KeyStore store, String name) throws Exception {
    String alias = name.replaceFirst("-.*", "");
    PrivateKey key = (PrivateKey) store.getKey(alias, null);
    Recipient recipient = key.getAlgorithm().equals("RSA") ? new JceKeyTransEnvelopedRecipient(key)
        : new JceKeyAgreeEnvelopedRecipient(key).setPrivateKeyAlgorithmIdentifier(
            new JcaX509CertificateHolder((X509Certificate) store.getCertificate(alias))
                .getSubjectPublicKeyInfo().getAlgorithm());
    write(name + ".decrypted", new CMSEnvelopedData(Files.readAllBytes(Path.of(name + ".cms")))
        .getRecipientInfos().iterator().next().getContent(recipient));
  }

  private static void write(String file, byte[] content) throws IOException {
    Files.write(Path.of(file), content);
  }

  private static byte[] sign(KeyStore store, String alias, String algorithm, byte[] content)
      throws Exception {
    CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
    generator.addSignerInfoGenerator(
        new JcaSignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().build()).build(
            new JcaContentSignerBuilder(algorithm).build((PrivateKey) store.getKey(alias, null)),
            (X509Certificate) store.getCertificate(alias)));
    generator.addCertificates(new JcaCertStore(List.of(store.getCertificateChain(alias))));
    return generator.generate(new CMSProcessableByteArray(content), false).getEncoded();
  }
}
